"""Reads what the extension writes to the data port and draws it as a waterfall of text.

The functions here touch no socket and print nothing: `parse_payload` turns one Base64 line into
the document it carries, `render_transaction` turns a document into lines for a terminal.
"""

import base64
import binascii
import json
import re
import unicodedata

MIN_WIDTH = 80
MAX_WIDTH = 120
DURATION_WIDTH = 9
STACK_FRAMES_SHOWN = 3
EIGHTHS = " ▏▎▍▌▋▊▉█"

STYLES = {
    "title": "1",
    "dim": "2",
    "good": "32",
    "warn": "33",
    "bad": "31",
    "root": "34",
    "php": "36",
    "http": "35",
    "store": "33",
    "notice": "33",
}

# A document holds a comma straight after an opening brace in exactly two places, both deliberate.
# Strings are matched whole so that text that merely looks like one of the two stays as it is.
_TOKENS = re.compile(r'("(?:origin|app_parameters)":\{),|"[^"\\]*(?:\\.[^"\\]*)*"', re.DOTALL)


class PayloadError(ValueError):
    """The bytes are no payload; the text says why."""


def parse_json(text):
    """JSON text to a value, tolerating the two deliberate commas."""
    try:
        return json.loads(text, strict=False)
    except json.JSONDecodeError:
        mended = _TOKENS.sub(lambda match: match.group(1) or match.group(0), text)
        return json.loads(mended, strict=False)


def parse_payload(line):
    """One line of the data port (bytes, with or without its line feed) to its document."""
    try:
        raw = base64.b64decode(line.strip(b"\r\n"), validate=True)
    except (binascii.Error, ValueError) as problem:
        raise PayloadError("not Base64 (%s)" % problem) from None
    try:
        document = parse_json(raw.decode("utf-8", "replace"))
    except (ValueError, RecursionError) as problem:
        raise PayloadError("Base64, but not JSON inside (%s)" % problem) from None
    if not isinstance(document, dict) or not isinstance(document.get("apm"), dict):
        raise PayloadError('JSON, but not an object with a member "apm"')
    return document


def clean(value):
    """Any value as one line of text that cannot steer a terminal."""
    if value is None:
        return ""
    if isinstance(value, (dict, list)):
        value = json.dumps(value, ensure_ascii=False)
    text = re.sub(r"\s+", " ", str(value)).strip()
    return "".join(_visible(character) for character in text)


def _visible(character):
    category = unicodedata.category(character)
    if category == "Cc":
        return "\\x%02x" % ord(character)
    if category in ("Cf", "Cs"):
        return "\N{REPLACEMENT CHARACTER}"
    return character


def _cells(character):
    if unicodedata.combining(character):
        return 0
    return 2 if unicodedata.east_asian_width(character) in "WF" else 1


def cell_width(text):
    """How many terminal columns the text takes."""
    return sum(_cells(character) for character in text)


def fit(text, width):
    """The text in exactly `width` columns: padded, or cut with an ellipsis."""
    used = cell_width(text)
    if used <= width:
        return text + " " * (width - used)
    kept, used = [], 0
    for character in text:
        if used + _cells(character) > width - 1:
            break
        kept.append(character)
        used += _cells(character)
    return "".join(kept) + "…" + " " * (width - 1 - used)


def number(value):
    """A number of the document as an int; anything else counts as 0."""
    if isinstance(value, bool) or not isinstance(value, (int, float)) or value != value:
        return 0
    return int(max(-(2**63), min(value, 2**63)))


def record(value):
    """The value if it is a JSON object, else an empty one."""
    return value if isinstance(value, dict) else {}


def records(value):
    """The JSON objects among the elements of a list; none for anything else."""
    return [entry for entry in value if isinstance(entry, dict)] if isinstance(value, list) else []


def duration_text(milliseconds):
    if abs(milliseconds) < 10000:
        return "%d ms" % milliseconds
    text = "%.1f s" % (milliseconds / 1000)
    # Times that no request has, from a clock that was set or a payload that was made up.
    return text if len(text) < DURATION_WIDTH else "—"


def bytes_text(count):
    for unit, size in (("GiB", 2**30), ("MiB", 2**20), ("KiB", 2**10)):
        if abs(count) >= size:
            return "%.1f %s" % (count / size, unit)
    return "%d bytes" % count


def short_path(path):
    """The last two parts of a path, so that a file and its folder fit on a line."""
    parts = [part for part in clean(path).split("/") if part]
    return clean(path) if len(parts) <= 2 else "…/" + "/".join(parts[-2:])


def paint(text, style, colour):
    if not colour or not style or not text:
        return text
    return "\x1b[%sm%s\x1b[0m" % (STYLES[style], text)


def arrange(spans):
    """Spans as (depth, span) in drawing order: parents before children, by sequence number."""
    ordered = sorted(spans, key=lambda span: number(span.get("mo")))
    # Anything that is not a text cannot name a span.
    names = [span["si"] if isinstance(span.get("si"), str) else None for span in ordered]
    by_id = {name: index for index, name in enumerate(names) if name}
    children, tops = {}, []
    for index, span in enumerate(ordered):
        link = span.get("psi")
        parent = by_id.get(link) if isinstance(link, str) else None
        if parent is None or parent == index:
            tops.append(index)
        else:
            children.setdefault(parent, []).append(index)
    drawn, seen = [], set()
    # The last loop picks up spans that no top leads to: parents that name each other in a ring.
    for start in tops + list(range(len(ordered))):
        waiting = [(0, start)]
        while waiting:
            depth, index = waiting.pop()
            if index in seen:
                continue
            seen.add(index)
            drawn.append((depth, ordered[index]))
            below = children.get(index, ())
            waiting.extend((depth + 1, child) for child in reversed(below))
    return drawn


def bar(start, end, total, width):
    """A bar of exactly `width` columns for a span from `start` to `end` ms of `total` ms. It
    begins at a whole column and ends exact to an eighth, so that equal ends are flush; without
    a duration it is the thinnest there is."""
    if total <= 0:
        return fit(EIGHTHS[1], width)
    first = min(max(start, 0) * width // total, width - 1)
    last = min(end * width * 8 // total, width * 8)
    eighths = max(1, last - first * 8) if end > start else 1
    full, rest = divmod(eighths, 8)
    return fit(" " * first + EIGHTHS[8] * full + (EIGHTHS[rest] if rest else ""), width)


def bar_style(depth, span):
    if span.get("if") or span.get("ie"):
        return "bad"
    if depth == 0:
        return "root"
    component = span.get("cn")
    if component in ("PHP", None):
        return "php"
    return "http" if component == "HTTP" else "store"


def error_text(entry):
    name = clean(entry.get("err_clz"))
    label = clean(entry.get("level")) if name == "ERROR" else name
    place = "%s:%s" % (short_path(entry.get("filename")), clean(entry.get("linenumber")))
    return "%s: %s (%s)" % (label or "Error", clean(entry.get("str")), place)


def stack_texts(frames):
    frames = [frame for frame in frames if isinstance(frame, list) and len(frame) == 4]
    texts = []
    for class_name, function, path, line in frames[:STACK_FRAMES_SHOWN]:
        name = "%s::%s" % (clean(class_name), clean(function)) if class_name else clean(function)
        texts.append("%s %s:%s" % (name, short_path(path), clean(line)))
    if len(frames) > STACK_FRAMES_SHOWN:
        texts.append("… %d more" % (len(frames) - STACK_FRAMES_SHOWN))
    return texts


def header_lines(value):
    """The headers of a call, which are a list of lines or an object of names and values."""
    if isinstance(value, dict):
        return ["%s: %s" % (clean(name), clean(text)) for name, text in value.items()]
    return list(map(clean, value)) if isinstance(value, list) else [clean(value)]


def carried(span):
    """What a span carries beside its times, as (label, text, style) rows."""
    rows = []
    if span.get("qs") is not None:
        rows.append(("query", clean(span["qs"]), None))
    if span.get("hn") is not None:
        host = clean(span["hn"])
        if number(span.get("pn")):
            host += ":%d" % number(span["pn"])
        rows.append(("url" if "://" in host else "host", host, None))
    elif number(span.get("pn")):
        rows.append(("port", str(number(span["pn"])), None))
    if span.get("dn") is not None:
        rows.append(("database", clean(span["dn"]), None))
    if number(span.get("esc")):
        status = number(span["esc"])
        rows.append(("status", str(status), "bad" if status >= 400 else "good"))
    if span.get("erqh") is not None:
        rows.append(("sent", " · ".join(header_lines(span["erqh"])), None))
    if span.get("ersh") is not None:
        rows.append(("received", " · ".join(header_lines(span["ersh"])), None))
    failed = " and ".join(name for key, name in (("if", "exception"), ("ie", "error"))
                          if span.get(key))
    if failed:
        rows.append(("failed", failed, "bad"))
    for entry in records(span.get("ei")):
        rows.append(("error", error_text(entry), "bad"))
    if isinstance(span.get("mst"), list):
        for text in stack_texts(span["mst"]):
            rows.append(("at", text, None))
    return rows


def span_label(depth, span, indent_limit):
    name = clean(span.get("fn")) or "(no name)"
    component = clean(span.get("cn"))
    if component and component != "PHP":
        name += " [%s]" % component
    if span.get("ar"):
        name += " (async)"
    indent = 2 * depth
    if indent > indent_limit:
        return " " * indent_limit + "⋯%d " % depth + name
    return " " * indent + name


class Sheet:
    """The columns of one drawing: labels, bars on a common axis of milliseconds, durations."""

    def __init__(self, labels, origin, end, width, colour):
        self.origin, self.total = origin, end - origin
        self.width, self.colour = width, colour
        widest = max(map(cell_width, labels))
        self.label_width = max(min(widest, width * 45 // 100), width // 4)
        self.bar_width = width - 2 - self.label_width - 2 - DURATION_WIDTH

    def line(self, label, label_style, start, end, bar_look):
        """One bar between its label and its duration."""
        name = fit(label, self.label_width)
        for style in label_style:
            name = paint(name, style, self.colour)
        drawn = bar(start - self.origin, end - self.origin, self.total, self.bar_width)
        return "  %s  %s%s" % (name, paint(drawn, bar_look, self.colour),
                               duration_text(end - start).rjust(DURATION_WIDTH))

    def rows(self, indent, rows):
        """What a span carries, under it."""
        lines = []
        for key, text, style in rows:
            value = fit(text, self.width - indent - 10).rstrip()
            lines.append(" " * indent + paint(fit(key, 10), "dim", self.colour)
                         + paint(value, style, self.colour))
        return lines


def render_spans(spans, width, colour, max_spans):
    rows = arrange(spans)
    if not rows:
        return ["  (no spans)"]
    origin = number(rows[0][1].get("st"))
    end = max(number(span.get("et")) for _, span in rows)
    shown = rows[:max_spans]
    indent_limit = width // 5
    labels = [span_label(depth, span, indent_limit) for depth, span in shown]
    sheet = Sheet(labels, origin, end, width, colour)
    lines = []
    for label, (depth, span) in zip(labels, shown):
        style = bar_style(depth, span)
        lines.append(sheet.line(label, ["bad"] if style == "bad" else [], number(span.get("st")),
                                number(span.get("et")), style))
        lines += sheet.rows(min(2 * depth, indent_limit) + 4, carried(span))
    if len(rows) > len(shown):
        lines.append("  … %d more spans" % (len(rows) - len(shown)))
    return lines


def title_of(info):
    name = clean(info.get("t_name")) or "(no name)"
    query = clean(info.get("http_query_str"))
    return name + "?" + query if query else name


def _facts(info, width, colour):
    """The line of figures; those that no longer fit are left out."""
    web = number(info.get("transaction_type")) == 1
    length = number(info.get("e_time")) - number(info.get("s_time"))
    facts = [("web" if web else "command line", None)]
    if clean(info.get("http_method_name")):
        facts.append((fit(clean(info["http_method_name"]), 12).rstrip(), None))
    if info.get("httpcode") is not None:
        code = number(info["httpcode"])
        style = "bad" if code >= 500 else "warn" if code >= 400 else "good"
        facts.append(("status %d" % code, style))
    facts += [
        (duration_text(length), "title"),
        ("CPU " + duration_text(number(info.get("cputime"))), None),
        ("memory " + bytes_text(number(info.get("memalloc"))), None),
    ]
    while sum(cell_width(text) + 3 for text, _ in facts) > width + 3:
        facts.pop()
    return " · ".join(paint(text, style, colour) for text, style in facts)


def root_of(apm):
    """The root span: the one that was opened first."""
    spans = records(record(apm.get("method_info")).get("span_info"))
    return min(spans, key=lambda span: number(span.get("mo")), default={})


def caller_of(apm):
    """The span of the calling service, or nothing."""
    return clean(root_of(apm).get("psi"))


def _extras(apm, info):
    """Rows under the figures: what only some transactions have."""
    application = record(apm.get("application_info"))
    rows = [(key, text) for key, text in (
        ("trace", clean(info.get("trace_id"))),
        ("from", clean(application.get("application_name")))) if text]
    if info.get("normalised_tname") is not None:
        rows.append(("known as", clean(info["normalised_tname"])))
    if info.get("session_id") is not None:
        rows.append(("session", clean(info["session_id"])))
    arguments = record(info.get("bckgrnd_input_params"))
    if len(arguments) > 1:
        rows.append(("arguments", " ".join(map(clean, list(arguments.values())[1:]))))
    if info.get("custom_params") is not None:
        rows.append(("custom", clean(info["custom_params"])))
    origin = record(info.get("origin"))
    if origin.get("flow") is not None:
        rows.append(("flow", clean(origin["flow"])))
    if origin.get("async") is True:
        rows.append(("called", "asynchronously"))
    if caller_of(apm):
        rows.append(("caller", "span " + caller_of(apm)))
    parameters = record(apm.get("app_parameters"))
    for key in ("sum", "average"):
        if key in parameters:
            rows.append((key, clean(parameters[key])))
    return rows


def render_transaction(document, width=100, colour=False, max_spans=200):
    """One transaction as a list of lines, none wider than `width` (held to 80 to 120)."""
    width = max(MIN_WIDTH, min(width, MAX_WIDTH))
    apm = record(document.get("apm"))
    info = record(apm.get("transaction_info"))
    spans = records(record(apm.get("method_info")).get("span_info"))
    title = fit(title_of(info), width - 6).rstrip()
    rule = "━" * (width - 4 - cell_width(title))
    lines = [
        paint("━━ ", "dim", colour) + paint(title, "title", colour)
        + paint(" " + rule, "dim", colour),
        "  " + _facts(info, width - 2, colour),
    ]
    for key, text in _extras(apm, info):
        lines.append("  " + paint(fit(key, 10), "dim", colour) + fit(text, width - 12).rstrip())
    lines.append("")
    lines += render_spans(spans, width, colour, max_spans)
    return [line.rstrip() for line in lines]


def render_line(label, text, width=100, colour=False, style="notice"):
    """A notice, or anything else that is said in one line."""
    width = max(MIN_WIDTH, min(width, MAX_WIDTH))
    return paint(label, style, colour) + " " + fit(clean(text), width - len(label) - 1).rstrip()
