"""Checks which room includes which.

    includes.py ROOT ROOM...

The rooms are folders below ROOT, lowest first. A file may include headers of its own room and of
those before it, and a header whose name ends in _private.h only within its room. Prints each
include that breaks this rule; status 1 if there is one.
"""

import pathlib
import re
import sys

INCLUDE = re.compile(r'^\s*#\s*include\s+"([^"]+)"')


def complaint(file_room, included, rooms):
    """Why a file of that room may not include that header; None if it may."""
    room, _, name = included.rpartition("/")
    if room not in rooms:
        return "is not a header of any room"
    if name.endswith("_private.h") and room != file_room:
        return "is private to its room"
    if rooms.index(room) > rooms.index(file_room):
        return f"is of a higher room: {' < '.join(rooms)}"
    return None


def complaints(root, rooms):
    for path in sorted(root.rglob("*")):
        if path.suffix not in (".cpp", ".h"):
            continue
        name = path.relative_to(root)
        if len(name.parts) != 2 or name.parts[0] not in rooms:
            yield f"{path}: is in no room"
            continue
        for number, line in enumerate(path.read_text(encoding="utf-8").splitlines(), 1):
            found = INCLUDE.match(line)
            # The engine's own headers are named by the adapter alone, and config.h is generated.
            if not found or not (root / found[1].partition("/")[0]).is_dir():
                continue
            why = complaint(name.parts[0], found[1], rooms)
            if why:
                yield f"{path}:{number}: {found[1]} {why}"


def main():
    found = list(complaints(pathlib.Path(sys.argv[1]), sys.argv[2:]))
    print("\n".join(found))
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main())
