"""Error records and call stacks of spans, and what the checks on them share."""
import json

from engines import DROP_SHORT
from payloads import escape

MEMBERS = ["err_clz", "filename", "linenumber", "time", "level", "str"]


def payload_of(wire, collector, source, **settings):
    """The payload of a command-line run that drops every span that did not fail."""
    given = dict(DROP_SHORT, **{"kaq." + name: value for name, value in settings.items()})
    wire.cli(source, settings=given)
    return collector.payload


def texts(span):
    """The messages of a span's records, in their order; [] without any."""
    return [record["str"] for record in span.get("ei", [])]


def told(span):
    """The records of a span as (class, level, message)."""
    return [(record["err_clz"], record["level"], record["str"]) for record in span.get("ei", [])]


def flags(span):
    """A span's priority and its two failure flags as far as it has them, in their order."""
    return {key: span[key] for key in span if key in ("pr", "if", "ie")}


def is_failed(span):
    return "if" in span or "ie" in span or "ei" in span or "mst" in span


FAILED_BY_ERROR = {"pr": 1, "ie": 1}
FAILED_BY_EXCEPTION = {"pr": 1, "if": 1}
FAILED_BY_BOTH = {"pr": 1, "if": 1, "ie": 1}


def as_written(record):
    """The bytes that a record with these values has on the wire."""
    parts = ['"%s":%s' % (key, '"%s"' % escape(value) if isinstance(value, str) else value)
             for key, value in record.items()]
    return "{" + ",".join(parts) + "}"


def assert_written(payload, span):
    """The records stand on the wire member by member, without a blank, separated by commas."""
    for record in span["ei"]:
        assert list(record) == MEMBERS
    assert '"ei":[%s]' % ",".join(as_written(record) for record in span["ei"]) in payload.text


def assert_only_record(payload, span, **members):
    """The span has one record, of these members and a time within the request."""
    assert_written(payload, span)
    record, = span["ei"]
    time = record.pop("time")
    assert record == members
    assert payload.transaction["s_time"] <= time <= payload.transaction["e_time"]


def stack(*frames):
    """The text of a call stack on the wire."""
    return '"mst":[%s]' % ",".join(
        '["%s","%s","%s",%d]' % (*(escape(text) for text in frame[:3]), frame[3])
        for frame in frames)


def json_text(value):
    return json.dumps(value, separators=(",", ":"))
