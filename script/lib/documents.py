"""Checks that the files and headings that the documents name exist.

    documents.py ROOT DOCUMENT...

Checked are the targets of links, with their headings, and whatever looks like a file in code: words
with a slash whose first folder is one of the project or of the extension, single words that end in
a slash, and names of source files. "*" stands for anything, "{h,cpp}" for each of the two. Prints
what does not exist; status 1 if there is anything.
"""

import itertools
import pathlib
import re
import subprocess
import sys

LINK = re.compile(r"\[[^\]]*\]\(([^()\s]+)\)")
CODE = re.compile(r"```.*?```|`[^`\n]+`|(?<=\n\n)(?:    [^\n]*\n|\n)+", re.DOTALL)
# Not in a path outside the project, and not part of an address.
WORD = re.compile(r"(?<![\w./~$*<>@:-])[\w.][\w./*{},-]*")
SOURCE = re.compile(r"[\w-]+\.(?:c|h|cpp|m4|py|sh|md|phpt|frag|svg)")
HEADING = re.compile(r"^#+ +(.*?)\s*$", re.MULTILINE)
FENCED = re.compile(r"^```.*?^```", re.MULTILINE | re.DOTALL)


def variants(word):
    """A word with braces, spelt out."""
    parts = re.split(r"\{([^{}]*)\}", word)
    choices = [part.split(",") if at % 2 else [part] for at, part in enumerate(parts)]
    return ["".join(choice) for choice in itertools.product(*choices)]


def anchors(text):
    """The anchors that a page of that text has."""
    headings = HEADING.findall(FENCED.sub("", text))
    return {re.sub(r"[^\w -]", "", re.sub(r"[`*]", "", heading)).lower().replace(" ", "-")
            for heading in headings}


def bad_links(root, document, text):
    for target in LINK.findall(text):
        if re.match(r"[a-z]+:", target):
            continue
        path, _, anchor = target.partition("#")
        file = (document.parent / path).resolve() if path else document
        if root not in file.parents or not file.exists():
            yield f"links to {path}, which does not exist"
        elif anchor and anchor not in anchors(file.read_text(encoding="utf-8")):
            yield f"links to {target}, which has no such heading"


class Project:
    """The files that git knows or would take in."""

    def __init__(self, root):
        listed = subprocess.run(
            ["git", "-c", "safe.directory=*", "-C", str(root), "ls-files", "-co",
             "--exclude-standard"], check=True, capture_output=True, text=True).stdout
        self._files = {name for name in listed.splitlines() if (root / name).is_file()}
        self._paths = set(self._files)
        for name in self._files:
            self._paths.update(str(parent) for parent in pathlib.PurePath(name).parents)
        self._names = {pathlib.PurePath(name).name for name in self._files}
        self._top = {name.partition("/")[0] for name in self._files if "/" in name}
        self._rooms = {name.split("/")[1] for name in self._files
                       if name.startswith("extension/") and name.count("/") > 1}

    def misses(self, word):
        """Whether the word looks like a file of the project but is not one."""
        folder, slash, rest = word.partition("/")
        if not slash:
            return bool(SOURCE.fullmatch(word)) and word not in self._names
        if folder in self._top:
            return not self._is_there(word)
        # A room on its own is written with a slash at its end.
        if folder in self._rooms and (not rest or SOURCE.search(rest)):
            return not self._is_there("extension/" + word)
        return not rest

    def _is_there(self, word):
        word = word.rstrip("/")
        if "*" not in word:
            return word in self._paths
        return any(pathlib.PurePath(name).match(word) for name in self._files)


def bad_words(project, text):
    for code in CODE.findall(text):
        for word in WORD.findall(code):
            for one in variants(word.rstrip(".,")):
                if project.misses(one):
                    yield f"names {one}, which does not exist"


def main(root, documents):
    root = root.resolve()
    project = Project(root)
    found = []
    for document in documents:
        text = (root / document).read_text(encoding="utf-8")
        bad = [*bad_links(root, root / document, text), *bad_words(project, text)]
        found += [f"{document}: {line}" for line in dict.fromkeys(bad)]
    print("".join(line + "\n" for line in found), end="")
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main(pathlib.Path(sys.argv[1]), sys.argv[2:]))
