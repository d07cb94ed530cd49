#!/usr/bin/env python3
"""Finds source files over 500 lines and C++ functions over 60.

    lengths.py FILE...

A file that is a table has the comment "table" in its first ten lines; a function
that is one, on its first line or the one before. Prints a line for each that is
too long; status 1 if there is any.
"""

import re
import sys

FILE_LIMIT = 500
FUNCTION_LIMIT = 60
TABLE = re.compile(r"(//|/\*|#)\s*table\b")
# Comments and literals, so that the braces in them do not count.
NOT_CODE = re.compile(
    r"//[^\n]*|/\*.*?\*/|\"(?:\\.|[^\"\\\n])*\"|'(?:\\.|[^'\\\n])*'|R\"(\w*)\(.*?\)\1\"",
    re.DOTALL,
)


def blank(match):
    """As many line ends as the match had, and nothing else."""
    return "\n" * match.group(0).count("\n") or " "


def functions(text):
    """Yields (name, first line, last line), counted from 1, of each function
    body at namespace level."""
    code = NOT_CODE.sub(blank, text)
    code = re.sub(r"^[ \t]*#(?:[^\n\\]|\\.|\\\n)*", blank, code, flags=re.MULTILINE | re.DOTALL)
    depth = 0
    line = 1
    head = ""
    start = None
    for character in code:
        if character == "\n":
            line += 1
        if character == "{":
            if depth == 0 and re.match(r"\s*(namespace\b|extern\s*$)", head):
                head = ""
                continue
            if depth == 0:
                name = re.search(r"([\w:~]+)\s*\(([^()]*)", head)
                is_function = name and "=" not in head.split("(")[0]
                if is_function:
                    label = name.group(1)
                    if label.startswith("TEST"):
                        label += "(" + " ".join(name.group(2).split()) + ")"
                    start = (label, line)
            depth += 1
        elif character == "}":
            depth = max(depth - 1, 0)
            if depth == 0:
                if start:
                    yield start[0], start[1], line
                start = None
                head = ""
        elif character == ";" and depth == 0:
            head = ""
        elif depth == 0:
            head += character


def too_long(path):
    with open(path, encoding="utf-8", errors="replace") as source:
        text = source.read()
    lines = text.split("\n")
    if len(lines) - 1 > FILE_LIMIT and not any(TABLE.search(one) for one in lines[:10]):
        yield f"{path}: {len(lines) - 1} lines, more than {FILE_LIMIT}"
    if path.endswith((".cpp", ".h")):
        for name, first, last in functions(text):
            marked = any(TABLE.search(one) for one in lines[max(first - 2, 0) : first])
            if last - first + 1 > FUNCTION_LIMIT and not marked:
                yield f"{path}:{first}: {name} has {last - first + 1} lines, more than {FUNCTION_LIMIT}"


def main(paths):
    found = [finding for path in paths for finding in too_long(path)]
    for finding in found:
        print(finding)
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
