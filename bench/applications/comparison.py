"""Whether a page is the bare engine's: status, headers, body and log. What differs between bare
runs is noise: a word at that place of that line may be anything like it, and a line that one bare
run lacks may come or not."""
import difflib
import hashlib
import html
import re
import time

_REPLACEMENTS = [(re.compile(pattern), text) for pattern, text in (
    (r"\b\d{4}-\d\d-\d\d[T +]\d\d(:|%3A)\d\d((:|%3A)\d\d)?(\.\d+)?(Z|[+-]\d\d:?\d\d)?", "<time>"),
    (r"\b(Mon|Tue|Wed|Thu|Fri|Sat|Sun), \d\d[ -]\w{3}[ -]\d{2,4} \d\d:\d\d:\d\d( GMT| \+0000)?",
     "<time>"),
    (r"\[\d\d-\w{3}-\d{4} \d\d:\d\d:\d\d( UTC)?\]", "<time>"),
    (r"\b[01]?\d:[0-5]\d(:[0-5]\d)?\b(\s*[apAP]\.?[mM]\.?)?|\b2[0-3]:[0-5]\d(:[0-5]\d)?\b", "<clock>"),
    (r"\b20\d\d[01]\d[0-3]\d[0-2]\d[0-5]\d[0-5]\d\b", "<time>"),
    (r"\b\d+ (second|sec|min|minute)s? ago\b", "<today>"),
    (r"\d+\.\d+%\s+\d+\.\d+", "<share>"),
    (r"\b\d+\.\d{3,}\b", "<fraction>"),
    # For those without an address by chance.
    (r"\b[0-2]\.gravatar\.com\b", "<gravatar>"),
)]
_FIGURE = re.compile(r"\b\d[\d,.]*( ([KMG]i)?B\b| [kMG]\b)?")
# As one writes the day, and as one does not.
_TODAY = re.compile("|".join(re.escape(time.strftime(form, time.gmtime())) for form in (
    "%Y-%m-%d", "%Y/%m/%d", "%B %d, %Y", "%B %-d, %Y", "%d %B %Y", "%-d %B %Y", "%Y%m%d")))
_EPOCH = re.compile(r"\b1[6-9]\d{8}(\d{3})?(\.\d+)?\b")
_DAYS = 20
# A page that lists the engine's extensions lists this one.
_LISTED = re.compile(r"\W*(\w+\W+)?kaq\W*\Z")
_MAIL = re.compile(r"mailto:[^<\n]*<")
_SINGLE_WORD = re.compile(r"[\w.%+/=-]*\Z")
_TOKENS = re.compile(r"\w+|\s+|.", re.DOTALL)
_WITH_DIGIT = re.compile(r"[\w.%+/=-]*\d[\w.%+/=-]*")
# Equal text that is shorter than this, between two differences.
_BY_CHANCE = 4
# Of a page that is no text only the hash is compared.
_TEXT_TYPES = ("text/", "json", "xml", "javascript", "x-www-form")
# Above this, lines are aligned by position alone: aligning takes the square of the length.
_ALIGNED = 20000


def normalised(text):
    # Some write each letter of an address by chance as it is or by its number.
    text = _MAIL.sub(lambda match: html.unescape(match.group(0)), text)
    for pattern, replacement in _REPLACEMENTS:
        text = pattern.sub(replacement, text)
    return _EPOCH.sub(_of_these_days, _TODAY.sub("<today>", text))


def _of_these_days(match):
    """Not each number of ten digits is a time."""
    days = abs(int(match.group(0)[:10]) - time.time()) / 86400
    return "<epoch>" if days < _DAYS else match.group(0)


def lines_of(visit, without=None):
    """All that is compared of a page, one item a line. `without`: text that was put into it."""
    lines = ["HTTP %s" % visit.status]
    lines += [_header(visit, *pair) for pair in visit.headers if pair[0].lower() != "date"]
    kind = visit.header("Content-Type").lower()
    if visit.body and not any(part in kind for part in _TEXT_TYPES):
        lines.append("%d bytes, %s" % (len(visit.body), hashlib.sha1(visit.body).hexdigest()))
    else:
        text = visit.text
        if without:
            text = text.replace(without, "", 1)
        if visit.is_clocked:
            text = _FIGURE.sub("<figure>", text)
        # Markup that stands in one line is taken apart, so that noise stays where it is.
        lines += re.sub(r"(>)(?=<)|(,)(?=\")", r"\1\2\n", text).split("\n")
    lines += ["log: " + line for line in visit.log.splitlines()]
    return normalised("\n".join(lines)).split("\n")


def _header(visit, name, value):
    """A length that is that of the body goes with the body."""
    if name.lower() == "content-length" and (visit.method == "HEAD" or value == str(len(visit.body))):
        value = "<length of the body>"
    return "%s: %s" % (name, value)


def _parts(left, right):
    """[(text, None) where both are equal, else (left text, right text)]. What is equal by chance,
    a few characters between two differences, counts as different."""
    matcher = difflib.SequenceMatcher(None, left, right, autojunk=False)
    parts = []
    for kind, a, b, c, d in matcher.get_opcodes():
        ours, theirs = "".join(left[a:b]), "".join(right[c:d])
        if kind == "equal" and parts and len(ours) < _BY_CHANCE and b < len(left):
            ours, theirs, kind = ours, ours, "by chance"
        if kind == "equal":
            parts.append((ours, None))
        elif parts and parts[-1][1] is not None:
            parts[-1] = (parts[-1][0] + ours, parts[-1][1] + theirs)
        else:
            parts.append((ours, theirs))
    return parts


def _template(one, other):
    """A pattern for both lines: where they differ, a word if it is one in both."""
    pattern = ""
    for ours, theirs in _parts(_TOKENS.findall(one), _TOKENS.findall(other)):
        if theirs is None:
            pattern += re.escape(ours)
        elif _SINGLE_WORD.match(ours) and _SINGLE_WORD.match(theirs):
            pattern += r"[\w.%+/=-]*"
        else:
            pattern += r".*?"
    return re.compile(pattern + r"\Z", re.DOTALL)


def _outline(line):
    """The line without its words that have a digit: what tokens and numbers are made of."""
    return _WITH_DIGIT.sub("#", line)


def _optional(line):
    """A pattern for a line that comes or not, and for those that differ in numbers alone."""
    return re.compile(r"[\w.%+/=-]*".join(re.escape(part) for part in _outline(line).split("#"))
                      + r"\Z", re.DOTALL)


def _differences(one, other):
    """[(line of one or None, line of the other or None)]. Lines are held against each other that
    have the same outline; what has no counterpart stands alone."""
    if one == other:
        return []
    if len(one) == len(other):
        pairs = [(a, b) for a, b in zip(one, other) if a != b]
        if all(_outline(a) == _outline(b) for a, b in pairs):
            return pairs
    left, right = (_outline("\n".join(lines)).split("\n") for lines in (one, other))
    matcher = difflib.SequenceMatcher(None, left, right, autojunk=len(one) > _ALIGNED)
    found = []
    for kind, a, b, c, d in matcher.get_opcodes():
        if kind == "equal":
            found += [(x, y) for x, y in zip(one[a:b], other[c:d]) if x != y]
        elif b - a == d - c:
            found += list(zip(one[a:b], other[c:d]))
        else:
            found += [(line, None) for line in one[a:b]] + [(None, line) for line in other[c:d]]
    return found


def _lists_us(line):
    return line is not None and not line.startswith("log:") and bool(_LISTED.match(line))


class Noise:
    """Of one page: learnt from its bare runs, of which the first is what others are held against.
    `shared` is what the pages of one application have in common: what is noise in a line of one
    page is noise in the same line of another."""

    def __init__(self, runs, shared=None):
        self._first = runs[0]
        self._templates = {}
        self._optional = []
        self._shared = {} if shared is None else shared
        self.lines = set()
        for run in runs[1:]:
            for ours, theirs in _differences(self._first, run):
                self.lines.add(ours)
                if ours is None or theirs is None:
                    self._optional.append(_optional(theirs if ours is None else ours))
                    continue
                template = _template(ours, theirs)
                self._templates.setdefault(ours, []).append(template)
                self._shared.setdefault(_outline(ours), []).append(template)

    def beyond(self, run):
        """[(bare line, this line)] of what is no noise; None for a line that is not there."""
        pairs = [(ours, None if _lists_us(theirs) else theirs)
                 for ours, theirs in _differences(self._first, run)]
        return [pair for pair in pairs if pair != (None, None) and not self._explains(*pair)]

    def _explains(self, ours, theirs):
        if ours is None or theirs is None:
            line = theirs if ours is None else ours
            return any(pattern.match(line) for pattern in self._optional)
        if any(pattern.match(theirs) for pattern in self._templates.get(ours, ())):
            return True
        return any(pattern.match(ours) and pattern.match(theirs)
                   for pattern in self._shared.get(_outline(ours), ()))
