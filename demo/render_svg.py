#!/usr/bin/env python3
"""Makes a picture (SVG) of captured terminal output, for the README, which has two.

    script -qc 'stty cols 96; script/demo' capture.txt
    demo/render_svg.py --keep /order capture.txt docs/demo.svg
    demo/render_svg.py --keep /shop/cart capture.txt docs/demo-request.svg
"""

import argparse
import re
import sys
import unicodedata
from xml.sax.saxutils import escape

CELL = 8.4
LINE = 19
FONT_SIZE = 14
MARGIN = 18
TITLE_BAR = 30

BACKGROUND = "#14181f"
BAR = "#222833"
TEXT = "#d6dbe4"
COLOURS = {31: "#f47067", 32: "#6bc46d", 33: "#dfb35b", 34: "#5c9df5", 35: "#c792ea",
           36: "#4fc1c9"}
DIM = "#7d8796"
EIGHTHS = {character: index / 8 for index, character in enumerate("▏▎▍▌▋▊▉█", 1)}

ESCAPE = re.compile(r"\x1b\[([0-9;]*)m")
OTHER_ESCAPES = re.compile(r"\x1b(?:\[[0-9;?]*[A-Za-ln-z]|[()][A-Z0-9]|\][^\x07]*\x07)")


def read_cells(line):
    """A line with escapes as a list of (character, colour, bold)."""
    cells, colour, bold, at = [], TEXT, False, 0
    for match in list(ESCAPE.finditer(line)) + [None]:
        end = match.start() if match else len(line)
        cells += [(character, colour, bold) for character in line[at:end]
                  if not unicodedata.category(character).startswith("C")]
        if match is None:
            break
        at = match.end()
        for code in [int(part or 0) for part in match.group(1).split(";")]:
            if code == 0:
                colour, bold = TEXT, False
            elif code == 1:
                bold = True
            elif code == 2:
                colour = DIM
            elif code in COLOURS:
                colour = COLOURS[code]
    return cells


def runs(cells):
    """Neighbours of one look and kind as (column, text, colour, bold)."""
    made = []
    for column, (character, colour, bold) in enumerate(cells):
        kind = "block" if character in EIGHTHS else "rule" if character == "━" else "text"
        if made and made[-1][4] == kind and made[-1][2:4] == [colour, bold]:
            made[-1][1] += character
        else:
            made.append([column, character, colour, bold, kind])
    return made


def draw_run(column, text, colour, bold, kind, top):
    """SVG elements of one run whose line begins at `top`."""
    left = MARGIN + column * CELL
    width = sum(EIGHTHS.get(character, 1) for character in text) * CELL
    if kind == "block":
        return ['<rect x="%.2f" y="%.1f" width="%.2f" height="%d" rx="1.5" fill="%s"/>'
                % (left, top + 3.5, width, LINE - 6, colour)]
    if kind == "rule":
        return ['<rect x="%.2f" y="%.1f" width="%.2f" height="1.5" fill="%s"/>'
                % (left, top + LINE / 2, width, colour)]
    stripped = text.strip(" ")
    if not stripped:
        return []
    left += (len(text) - len(text.lstrip(" "))) * CELL
    return ['<text x="%.2f" y="%.1f" textLength="%.2f" lengthAdjust="spacingAndGlyphs" '
            'fill="%s"%s xml:space="preserve">%s</text>'
            % (left, top + FONT_SIZE, len(stripped) * CELL, colour,
               ' font-weight="bold"' if bold else "", escape(stripped))]


def draw(lines, title):
    """The whole picture as text."""
    grid = [read_cells(line) for line in lines]
    columns = max(map(len, grid))
    width = 2 * MARGIN + columns * CELL
    height = TITLE_BAR + 2 * MARGIN + len(grid) * LINE - 8
    parts = [
        '<svg xmlns="http://www.w3.org/2000/svg" width="%.0f" height="%.0f" '
        'viewBox="0 0 %.0f %.0f" role="img" aria-label="%s">'
        % (width, height, width, height, escape(title, {'"': "&quot;"})),
        '<rect width="100%%" height="100%%" rx="8" fill="%s"/>' % BACKGROUND,
        '<path d="M0 8a8 8 0 0 1 8-8h%.0fa8 8 0 0 1 8 8v%dH0z" fill="%s"/>'
        % (width - 16, TITLE_BAR - 8, BAR),
        '<g font-family="DejaVu Sans Mono,Menlo,Consolas,monospace" font-size="%d">' % FONT_SIZE,
        '<text x="%.0f" y="20" text-anchor="middle" fill="%s">%s</text>'
        % (width / 2, DIM, escape(title)),
    ]
    for number, cells in enumerate(grid):
        top = TITLE_BAR + MARGIN - 6 + number * LINE
        for run in runs(cells):
            parts += draw_run(*run, top)
    return "\n".join(parts + ["</g>", "</svg>"]) + "\n"


# What a waterfall ends with.
LEGEND = "█ itself"


def blocks(lines):
    """The output cut before every line that shows a command; what comes earlier is left out. A
    block ends behind its waterfall, or without one at its second empty line."""
    made = []
    for line in lines:
        if ESCAPE.sub("", line).startswith("$ "):
            made.append([])
        if made:
            made[-1].append(line)
    return [end_of(block) for block in made]


def end_of(block):
    for number, line in enumerate(block):
        if ESCAPE.sub("", line).startswith(LEGEND):
            return block[:number + 1]
    empty = [number for number, line in enumerate(block) if line == ""]
    return block[:empty[1] + 1] if len(empty) > 1 else block


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n", maxsplit=1)[0])
    parser.add_argument("--keep", action="append", default=[], metavar="TEXT",
                        help="only the commands that contain this text (repeatable)")
    parser.add_argument("--title", default="script/demo", help="text of the title bar")
    parser.add_argument("capture", help="file with the terminal's output")
    parser.add_argument("picture", help="SVG file to write")
    options = parser.parse_args()
    with open(options.capture, encoding="utf-8", errors="replace") as file:
        text = OTHER_ESCAPES.sub("", file.read().replace("\r", ""))
    kept = []
    for block in blocks(text.split("\n")):
        if not options.keep or any(wanted in block[0] for wanted in options.keep):
            kept += block if block[-1] == "" else block + [""]
    if not kept:
        print("render_svg: nothing in %s is to be kept" % options.capture, file=sys.stderr)
        return 1
    with open(options.picture, "w", encoding="utf-8") as file:
        file.write(draw(kept[:-1], options.title))
    return 0


if __name__ == "__main__":
    sys.exit(main())
