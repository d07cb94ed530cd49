"""Draws the transactions of one distributed trace as one waterfall, joined by their identifiers.

The root span of a request that another service made names the span of that call as its parent:
the request is drawn below it. All times are of one clock, so the bars have one common axis.
The functions here touch no socket and print nothing.
"""

import collections

from waterfall import (MAX_WIDTH, MIN_WIDTH, Sheet, arrange, bar_style, caller_of, carried,
                       cell_width, clean, duration_text, fit, header_lines, number, paint, record,
                       records, root_of, span_label, title_of)

APPLICATION_STYLES = ("root", "http", "store", "php", "good")
# A call that takes less than this share of the whole trace and carries nothing is left out.
SHORTEST_SHARE = 50
# Headers that every call has, or that the drawing itself stands for.
USUAL_HEADERS = ("host", "date", "connection", "x-powered-by", "traceparent", "x-skelvor-id",
                 "x-skelvor-origin")

# `calls` are the positions of its spans by span id.
Request = collections.namedtuple("Request", "apm info application spans calls")

# `below` holds the positions of the requests that a span, named by (request, span), has caused.
Joined = collections.namedtuple("Joined", "requests tops below")


def trace_of(document):
    """The trace that a transaction belongs to."""
    return clean(record(record(document.get("apm")).get("transaction_info")).get("trace_id"))


def _request(document):
    apm = record(document.get("apm"))
    spans = arrange(records(record(apm.get("method_info")).get("span_info")))
    calls = {}
    for position, (_, span) in enumerate(spans):
        if clean(span.get("si")):
            calls.setdefault(clean(span.get("si")), position)
    application = clean(record(apm.get("application_info")).get("application_name"))
    return Request(apm, record(apm.get("transaction_info")), application or "(no name)", spans,
                   calls)


def join(documents):
    """The transactions, each below the span whose identifier its root names as its parent."""
    requests = [_request(document) for document in documents]
    requests.sort(key=lambda request: number(root_of(request.apm).get("st")))
    owners = {}
    for at, request in enumerate(requests):
        for name, position in request.calls.items():
            owners.setdefault(name, (at, position))
    tops, below = [], {}
    for at, request in enumerate(requests):
        owner = owners.get(caller_of(request.apm))
        if owner is None or owner[0] == at:
            tops.append(at)
        else:
            below.setdefault(owner, []).append(at)
    return Joined(requests, tops, below)


def _is_http_call(span):
    return span.get("cn") == "HTTP" and bool(span.get("ex"))


def loose_ends(joined):
    """What does not fit together, as texts: calls without the request that they caused, and
    requests whose calling span did not arrive."""
    texts = []
    for at, request in enumerate(joined.requests):
        for position, (_, span) in enumerate(request.spans):
            if _is_http_call(span) and (at, position) not in joined.below:
                texts.append("%s called %s (span %s), and no request names that span as its caller"
                             % (request.application, clean(span.get("hn")) or "somebody",
                                clean(span.get("si"))))
    for at in joined.tops:
        request = joined.requests[at]
        if caller_of(request.apm):
            texts.append("%s %s was called by span %s, which did not arrive" % (
                request.application, title_of(request.info), caller_of(request.apm)))
    return texts


def _ends_of_subtrees(spans):
    """For each position, the first one after it that is no descendant."""
    ends, waiting = [len(spans)] * len(spans), []
    for position, (depth, _) in enumerate(spans):
        while waiting and spans[waiting[-1]][0] >= depth:
            ends[waiting.pop()] = position
        waiting.append(position)
    return ends


def _shown(joined, at, shortest):
    """Per span of a request, whether it is drawn: it takes time or carries something, or a
    descendant does."""
    spans = joined.requests[at].spans
    shown, needed = [False] * len(spans), {}
    for position in range(len(spans) - 1, -1, -1):
        depth, span = spans[position]
        long = number(span.get("et")) - number(span.get("st")) >= shortest
        below = needed.pop(depth + 1, False)
        shown[position] = (depth == 0 or below or long or bool(carried(span))
                           or (at, position) in joined.below)
        needed[depth] = needed.get(depth, False) or shown[position]
    return shown


def _order(joined, shortest):
    """The drawing order as (depth, request, position) rows, and how many spans are left out."""
    rows, left_out, seen = [], 0, set()
    # The last part picks up requests that no top leads to: callers that name each other in a ring.
    for top in joined.tops + list(range(len(joined.requests))):
        waiting = [(0, top, None)]
        while waiting:
            depth, at, position = waiting.pop()
            if position is not None:
                rows.append((depth, at, position))
                continue
            if at in seen:
                continue
            seen.add(at)
            shown = _shown(joined, at, shortest)
            left_out += shown.count(False)
            waiting += reversed(_items(joined, at, depth, shown))
    return rows, left_out


def _items(joined, at, depth, shown):
    """The rows of one request; after a span's subtree, a place (with no position) for each
    request that it caused."""
    spans = joined.requests[at].spans
    ends = _ends_of_subtrees(spans)
    caused = {}
    # Inner spans end with or before their outer ones; of two with one end, the inner one is first.
    for (owner, position), below in joined.below.items():
        if owner == at:
            caused.setdefault(ends[position], []).append((position, below))
    items = []
    for position in range(len(spans) + 1):
        for caller, below in sorted(caused.get(position, []), reverse=True):
            items += [(depth + spans[caller][0] + 1, each, None) for each in below]
        if position < len(spans) and shown[position]:
            items.append((depth + spans[position][0], at, position))
    return items


def packed(parts, width):
    """(text, style) parts as lines of parts that fit together into the width."""
    lines, used = [], 0
    for text, style in parts:
        text = fit(text, width).rstrip() if cell_width(text) > width else text
        if lines and used + 3 + cell_width(text) <= width:
            lines[-1].append((text, style))
            used += 3 + cell_width(text)
        else:
            lines.append([(text, style)])
            used = cell_width(text)
    return lines


def _status(code):
    return "status %d" % code, "bad" if code >= 500 else "warn" if code >= 400 else "good"


def _request_facts(request):
    info = request.info
    parts = [(clean(info.get("http_method_name")), None)]
    if info.get("httpcode") is not None:
        parts.append(_status(number(info["httpcode"])))
    origin = record(info.get("origin"))
    if origin.get("flow") is not None:
        parts.append(("flow " + clean(origin["flow"]), None))
    if origin.get("async") is True:
        parts.append(("called async", None))
    if caller_of(request.apm):
        parts.append(("caller " + caller_of(request.apm), "dim"))
    return [part for part in parts if part[0]]


def _call_facts(span, has_request):
    parts = [(clean(span.get("hn")), None)]
    if number(span.get("esc")):
        parts.append(_status(number(span["esc"])))
    if has_request:
        parts.append(("span " + clean(span.get("si")), "dim"))
    for label, member in (("sent", "erqh"), ("received", "ersh")):
        headers = header_lines(span.get(member))
        headers = [line for line in headers
                   if line and line.split(":")[0].lower() not in USUAL_HEADERS]
        parts += [("%s %s" % (label, line), None) for line in headers]
    return [part for part in parts if part[0]]


def _joined_lines(parts, indent, width, colour):
    return [" " * indent + " · ".join(paint(text, look, colour) for text, look in line)
            for line in packed(parts, width - indent)]


def _summary(joined, duration, styles):
    calls = sum(_is_http_call(span) for request in joined.requests for _, span in request.spans)
    return list(styles.items()) + [("%d requests" % len(joined.requests), None),
                                   ("%d HTTP calls" % calls, None),
                                   (duration_text(duration), "title")]


def _label(joined, row, indent_limit):
    depth, at, position = row
    request = joined.requests[at]
    if position:
        return span_label(depth, request.spans[position][1], indent_limit)
    named = {"fn": "%s %s" % (request.application, title_of(request.info))}
    return span_label(depth, named, indent_limit)


def _styles(joined, rows):
    """A colour for each application, in the order of drawing."""
    styles = {}
    for _, at, _ in rows:
        styles.setdefault(joined.requests[at].application,
                          APPLICATION_STYLES[len(styles) % len(APPLICATION_STYLES)])
    return styles


def _draw(joined, row, label, sheet, style):
    """The lines of one span: its bar and what it carries."""
    depth, at, position = row
    request = joined.requests[at]
    span = request.spans[position][1]
    indent = min(2 * depth, sheet.width // 4) + 4
    failed = bar_style(1, span) == "bad"
    if position == 0:
        facts, label_style = _request_facts(request), [style, "title"]
    elif _is_http_call(span):
        facts, label_style = _call_facts(span, (at, position) in joined.below), []
    else:
        facts, label_style = [], []
    lines = [sheet.line(label, label_style or (["bad"] if failed else []), number(span.get("st")),
                        number(span.get("et")), "bad" if failed else style)]
    lines += _joined_lines(facts, indent, sheet.width, sheet.colour)
    told = ("url", "status", "sent", "received") if _is_http_call(span) else ()
    return lines + sheet.rows(indent, [row for row in carried(span) if row[0] not in told])


def render_trace(documents, width=100, colour=False, max_spans=200):
    """The transactions of one trace as a list of lines, none wider than `width` (held to 80 to
    120)."""
    width = max(MIN_WIDTH, min(width, MAX_WIDTH))
    title = fit("trace " + (trace_of(documents[0]) if documents else ""), width - 6).rstrip()
    lines = [paint("━━ ", "dim", colour) + paint(title, "title", colour)
             + paint(" " + "━" * (width - 4 - cell_width(title)), "dim", colour)]
    joined = join(documents)
    spans = [span for request in joined.requests for _, span in request.spans]
    if not spans:
        return lines + ["", "  (no spans)"]
    origin = min(number(span.get("st")) for span in spans)
    end = max(number(span.get("et")) for span in spans)
    shortest = max(1, (end - origin) // SHORTEST_SHARE)
    rows, left_out = _order(joined, shortest)
    styles = _styles(joined, rows)
    shown = rows[:max_spans]
    labels = [_label(joined, row, width // 4) for row in shown]
    sheet = Sheet(labels, origin, end, width, colour)
    lines += _joined_lines(_summary(joined, end - origin, styles), 2, width, colour) + [""]
    for row, label in zip(shown, labels):
        lines += _draw(joined, row, label, sheet, styles[joined.requests[row[1]].application])
    if len(rows) > len(shown):
        lines.append("  … %d more spans" % (len(rows) - len(shown)))
    if left_out:
        lines.append("  … and %d calls of less than %d ms that carry nothing"
                     % (left_out, shortest))
    return [line.rstrip() for line in lines]
