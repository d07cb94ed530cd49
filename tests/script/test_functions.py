"""Every function of ours that a script comes to call is in a file that it sources."""
import re
import unittest
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
SHELL = "#!/usr/bin/env bash"
SOURCED = re.compile(r'^\s*source .*?([\w.]+\.sh)"?$', re.MULTILINE)
FUNCTION = re.compile(r"^(kaq_\w+)\(\) [{(]\n(.*?)^[})]", re.MULTILINE | re.DOTALL)
CALLED = re.compile(r"(?<![\w$./-])kaq_[a-z_0-9]*[a-z0-9]\b")
# "kaq_suite_$suite": whatever begins so is called.
CALLED_BY_BEGINNING = re.compile(r"(?<![\w$./-])(kaq_[a-z_0-9]*_)\$")
PROGRAMS = {"kaq_manual"}
COMMENT = re.compile(r"(^|\s)#.*$", re.MULTILINE)


def entries():
    """What is run, not sourced."""
    files = [*(ROOT / "script").iterdir(), *(ROOT / "script/lib").glob("*.sh"), ROOT / ".ci/run"]
    return [file for file in files if file.is_file() and file.read_text().startswith(SHELL)]


def sourced_by(file, seen):
    if file not in seen:
        seen.append(file)
        for name in SOURCED.findall(file.read_text()):
            sourced_by(ROOT / "script/lib" / name, seen)
    return seen


def missing_of(entry, libraries):
    """What ENTRY, or a function that it comes to call, calls and nothing defines."""
    functions = {name: COMMENT.sub("", body) for text in [entry, *libraries] for name, body in FUNCTION.findall(text)}
    texts, reached, missing = [COMMENT.sub("", entry)], set(), set()
    while texts:
        text = texts.pop()
        names = set(CALLED.findall(text))
        for beginning in CALLED_BY_BEGINNING.findall(text):
            names |= {name for name in functions if name.startswith(beginning)}
        missing |= names - functions.keys()
        texts += [functions[name] for name in (names & functions.keys()) - reached]
        reached |= names
    return sorted(missing - PROGRAMS)


class Functions(unittest.TestCase):
    def test_every_function_that_is_called_is_sourced(self):
        scripts = entries()
        self.assertIn(ROOT / "script/lib/run_suite.sh", scripts)
        self.assertIn(ROOT / ".ci/run", scripts)
        for script in scripts:
            with self.subTest(script=str(script.relative_to(ROOT))):
                entry, *libraries = [file.read_text() for file in sourced_by(script, [])]
                self.assertEqual(missing_of(entry, libraries), [])

    def test_a_function_that_nothing_defines_is_found(self):
        library = "kaq_a() {\n\tkaq_b\n}\nkaq_unused() {\n\tkaq_c\n}\n"
        self.assertEqual(missing_of("kaq_a # kaq_d\n", [library]), ["kaq_b"])

    def test_functions_called_by_the_beginning_of_their_names_are_followed(self):
        library = "kaq_suite_a() {\n\tkaq_b\n}\n"
        self.assertEqual(missing_of('"kaq_suite_$1"\n', [library]), ["kaq_b"])


if __name__ == "__main__":
    unittest.main()
