"""Finds null pointers that are not written nullptr.

    nulls.py FILE...

Prints each line of C++ that has NULL outside of comments and literals; status 1 if there is one.
"""

import re
import sys

from lengths import NOT_CODE, blank


def main(paths):
    found = []
    for path in paths:
        with open(path, encoding="utf-8") as source:
            code = NOT_CODE.sub(blank, source.read())
        found += [f"{path}:{number}: NULL, not nullptr" for number, line in
                  enumerate(code.split("\n"), 1) if re.search(r"\bNULL\b", line)]
    print("".join(line + "\n" for line in found), end="")
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
