"""Calls of instrumented functions, made up from their rows, and what each must leave behind."""
import collections

from wrapped_rows import (BY_KEY, DIRECT, DIRECT_IF_NOTHING_PASSED, EMPTY, IGNORED, LOCALHOST,
                          NONE, ROWS)

# `source` is what a script writes, `value` what the call must be handed, as tell() of
# standins.PRELUDE puts it.
Value = collections.namedtuple("Value", "kind source value")

NULL = Value("null", "null", None)
ARRAY = Value("array", "['k' => [1, 'two']]", {"k": [1, "two"]})
OBJECT = Value("object", "$object", "object ArrayObject")
RESOURCE = Value("resource", "$resource", "resource")
YES = Value("bool", "true", True)
NO = Value("bool", "false", False)
ODD_VALUES = [NULL, ARRAY, OBJECT, RESOURCE, YES, NO]


def text(value):
    assert "'" not in value and "\\" not in value
    return Value("text", "'%s'" % value, value)


def number(value):
    return Value("number", str(value), value)


ODD_VALUES += [text("no number"), text("41"), text(""), number(0), number(-7)]


class NoFit(Exception):
    """The parser refuses the arguments."""


def _scalar_text(value):
    if value.kind not in ("text", "number", "bool", "null"):
        raise NoFit
    return {"null": "", "bool": "1" if value.value else ""}.get(value.kind, str(value.value))


def scalar_number(value):
    if value.kind == "text":
        if not value.value.lstrip("-").isdigit():
            raise NoFit
        return int(value.value)
    if value.kind not in ("number", "bool", "null"):
        raise NoFit
    return int(value.value or 0)


def _need(value, *kinds):
    if value.kind not in kinds:
        raise NoFit
    return value.value


class Engine:
    """How an engine's argument parser reads values."""

    def __init__(self, handles_are_objects):
        handle = ("resource", "object") if handles_are_objects else ("resource",)
        self._readers = {
            "s": _scalar_text, "l": scalar_number,
            "b": lambda value: _need(value, "text", "number", "bool", "null"),
            "a": lambda value: _need(value, "array"), "z": lambda value: value,
            "o": lambda value: _need(value, "object"), "O": lambda value: _need(value, "object"),
            "r": lambda value: _need(value, *handle), "+": lambda value: value,
        }

    def read(self, letters, values):
        """The values that the letters give; raises NoFit."""
        needed = len(letters.partition("|")[0].replace("!", ""))
        kinds = letters.replace("|", "")
        slots = [(kind, kinds[at + 1:at + 2] == "!") for at, kind in enumerate(kinds)
                 if kind != "!"]
        if len(values) < needed or (len(values) > len(slots) and slots[-1][0] != "+"):
            raise NoFit
        return [None if may_be_null and value.kind == "null" else self._readers[kind](value)
                for (kind, may_be_null), value in zip(slots, values)]

    def first_fit(self, row, values):
        """(places, what was read) of the first layout that fits; raises NoFit."""
        for count, letters, places in row.layouts:
            looked_at = values
            if count == "1+":
                looked_at = values[:1]
            elif count is not None and len(values) != count:
                continue
            try:
                return places, self.read(letters, looked_at)
            except NoFit:
                continue
        raise NoFit


def _connection(found):
    members = [("hn", found.get("host") or "localhost")]
    if found.get("port"):
        members.append(("pn", found["port"]))
    if found.get("dbname") is not None:
        members.append(("dn", found["dbname"]))
    return members


def _after_failed_parse(row, values):
    if row.failure == LOCALHOST:
        return [("hn", "localhost")]
    if row.failure == EMPTY or (row.failure == DIRECT_IF_NOTHING_PASSED and values):
        return [("qs", "")]
    assert row.failure in (DIRECT, IGNORED, DIRECT_IF_NOTHING_PASSED), row
    return []


def expected_data(row, values, engine):
    """The span's members after the common ones, in order, and whether the parse failed."""
    if row.data == NONE:
        return [], False
    try:
        places, read = engine.first_fit(row, values)
    except NoFit:
        return _after_failed_parse(row, values), True
    found = {datum: read[at] for datum, at in places.items() if at < len(read)}
    if row.data in ("cql", "contact"):
        first = next(iter(found.values()))
        is_text = first.kind == "text"
        if row.data == "contact":
            return (_connection({"host": first.value}) if is_text else []), False
        return ([("qs", first.value)] if is_text else []), False
    if row.data == "query":
        return [("qs", found["query"])], False
    if row.data == "dbname":
        return [("dn", found["dbname"])], False
    return _connection(found), False


def _good(letters):
    """A fitting value for each argument of a layout, all of them different."""
    makers = {"s": lambda n: text("text %d" % n), "l": lambda n: number(5000 + n),
              "b": lambda n: YES, "a": lambda n: ARRAY, "z": lambda n: number(n),
              "o": lambda n: OBJECT, "O": lambda n: OBJECT, "r": lambda n: RESOURCE,
              "+": lambda n: text("text %d" % n)}
    kinds = letters.replace("|", "").replace("!", "")
    return [makers[kind](at) for at, kind in enumerate(kinds)]


def argument_lists(row):
    """Lists of values: every length of each layout, too many, and odd values in every place."""
    lists = [[], [text("a"), ARRAY, OBJECT, NULL]]
    for _, letters, _ in row.layouts:
        good = _good(letters)
        lists += [good[:length] for length in range(len(good) + 1)]
        lists.append(good + [text("too many")])
        for at in range(len(good)):
            lists += [good[:at] + [odd] + good[at + 1:] for odd in ODD_VALUES]
            lists += [good[:at] + [odd] for odd in ODD_VALUES]
    unique = {tuple(one): None for one in map(_hashable, lists)}
    return [[_BY_SOURCE[source] for source in one] for one in unique]


_BY_SOURCE = {}


def _hashable(values):
    for value in values:
        _BY_SOURCE[value.source] = value
    return [value.source for value in values]


Case = collections.namedtuple("Case", "row values")


def all_cases():
    return [Case(row, values) for row in ROWS for values in argument_lists(row)]


# Drivers that are there declare parameters of these by reference.
TAKES_VARIABLES = ("curl_multi_exec", "mysqli_stmt_bind_param", "mysqli_stmt::bind_param")


def call_source(row, values):
    """Statements that return what the call returns; see standins.PRELUDE for $made."""
    arguments = [value.source for value in values]
    before = ""
    if row.key in TAKES_VARIABLES:
        before = "".join("$v%d = %s; " % pair for pair in enumerate(arguments))
        arguments = ["$v%d" % at for at in range(len(arguments))]
    class_key, _, method = row.key.rpartition("::")
    function = "$made['%s']->%s" % (class_key, method) if class_key else row.key
    return "%sreturn %s(%s);" % (before, function, ", ".join(arguments))


def text_in_place(value):
    """What the parser leaves in the place of an argument that it reads as a text."""
    try:
        return _scalar_text(value)
    except NoFit:
        return value.value


def may_become_text(row, at):
    """Whether a layout reads this argument as a text."""
    for _, letters, _ in row.layouts:
        kinds = letters.replace("|", "").replace("!", "")
        if at < len(kinds) and kinds[at] == "s":
            return True
    return False


assert set(BY_KEY) == {row.key for row in ROWS}
