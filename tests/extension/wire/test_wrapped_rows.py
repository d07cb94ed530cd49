"""Every instrumented function through its wrapper: the span, the arguments, the one call."""
import collections
import json
import pathlib
import tempfile

import pytest
import standins
import wrapped_calls
from conftest import Wire
from fake_collector import ENABLED, FakeCollector
from wrapped_rows import NEVER_WRAPPED, ROWS

CASES = wrapped_calls.all_cases()
CASES_OF = collections.defaultdict(list)
for _number, _case in enumerate(CASES):
    CASES_OF[_case.row.key].append(_number)

SLOW_QUERIES_ONLY = {"transaction.trace.sql.stacktrace.threshold": 1000}

# Each case runs in a function of its own; `errors` are what the engine said meanwhile.
HARNESS = """
    $errors = []; $results = [];
    set_error_handler(function ($level, $text) use (&$errors) {
        $errors[] = [$level, $text]; return true;
    });
    function run_case($number) {
        global $errors, $results, $made, $object, $resource;
        $errors = [];
        $case = 'case_' . $number;
        $thrown = null;
        $returned = null;
        try { $returned = $case($made, $object, $resource); }
        catch (Throwable $e) { $thrown = get_class($e) . ': ' . $e->getMessage(); }
        $results[] = ['returned' => $returned, 'thrown' => $thrown, 'errors' => $errors,
                      'calls' => kaq_standin_calls()];
    }
"""


def _script():
    functions = "".join(
        "function case_%d($made, $object, $resource) { %s }\n" % (
            number, wrapped_calls.call_source(case.row, case.values))
        for number, case in enumerate(CASES))
    return HARNESS + functions + """
        for ($number = 0; $number < %d; $number++) { run_case($number); }
        file_put_contents(%s, json_encode(['results' => tell($results),
                                           'list' => kaq_standin_list()]));
    """


class Outcome:
    """What one run of all cases gave."""

    def __init__(self, document, payload=None):
        self.results, self.list, self.payload = document["results"], document["list"], payload
        if payload:
            parents = {span["si"]: span for span in payload.spans}
            self.children = collections.defaultdict(list)
            for span in payload.spans[1:]:
                self.children[parents[span["psi"]]["fn"]].append(span)


def _run(wire, so, directory, **arguments):
    told = pathlib.Path(directory) / "told.json"
    source = _script() % (len(CASES), "'%s'" % told)
    result = standins.Standins(wire, so).run(
        source, {"kaq.span_limit": 1000000, "memory_limit": "1G"}, **arguments)
    assert (result.stdout, result.status) == (b"", 0), result
    return json.loads(told.read_text(encoding="utf-8"))


@pytest.fixture(scope="module")
def runs(engine):
    """All cases once without the extension and once recorded."""
    collector = FakeCollector()
    collector.reply = dict(ENABLED, **SLOW_QUERIES_ONLY)
    try:
        with tempfile.TemporaryDirectory(prefix="kaq-wire-") as directory:
            wire, so = Wire(engine, collector, directory), standins.path_of(engine)
            bare = Outcome(_run(wire, so, directory, loaded=False))
            recorded = Outcome(_run(wire, so, directory), collector.payload)
            yield {"bare": bare, "recorded": recorded}
    finally:
        collector.close()


@pytest.fixture
def parser(engine):
    return wrapped_calls.Engine(engine.handles_are_objects)


def _describe(number):
    case = CASES[number]
    return "case %d: %s" % (number, wrapped_calls.call_source(case.row, case.values))


def _span_of(outcome, number):
    found = [span for span in outcome.children["case_%d" % number]]
    assert len(found) == 1, (_describe(number), found)
    return found[0]


@pytest.mark.parametrize("row", ROWS, ids=lambda row: row.key)
def test_span_of_each_call(runs, parser, row):
    assert CASES_OF[row.key]
    for number in CASES_OF[row.key]:
        span = _span_of(runs["recorded"], number)
        data, _ = wrapped_calls.expected_data(row, CASES[number].values, parser)
        name = row.name if row.cls is None else row.cls + "::" + row.name
        times = [("st", span["st"]), ("et", span["et"]), ("mo", span["mo"])]
        ids = [("si", span["si"]), ("psi", span["psi"])]
        expected = times + [("pr", 1), ("fn", name), ("cn", row.component)] + (
            [("ex", 1)] if row.ext else []) + ids + data
        assert list(span.items()) == expected, _describe(number)


@pytest.mark.parametrize("row", ROWS, ids=lambda row: row.key)
def test_function_is_called_once_with_its_arguments(runs, row):
    for number in CASES_OF[row.key]:
        bare, recorded = (runs[run].results[number] for run in ("bare", "recorded"))
        assert [call[0] for call in recorded["calls"]] == [row.key], _describe(number)
        assert recorded["returned"] == bare["returned"] == "result of " + row.key
        assert recorded["thrown"] is bare["thrown"] is None, _describe(number)
        _, came, counts = recorded["calls"][0]
        _, bare_came, bare_counts = bare["calls"][0]
        assert len(came) == len(bare_came), _describe(number)
        for at, (value, passed) in enumerate(zip(came, bare_came)):
            if json.dumps(value) == json.dumps(passed):
                assert counts[at] == bare_counts[at], (_describe(number), at)
            else:
                assert wrapped_calls.may_become_text(row, at), (_describe(number), at)
                assert value == wrapped_calls.text_in_place(CASES[number].values[at])


@pytest.mark.parametrize("row", ROWS, ids=lambda row: row.key)
def test_engine_s_own_warning_comes_from_the_memcache_connects_only(runs, parser, engine, row):
    for number in CASES_OF[row.key]:
        bare, recorded = (runs[run].results[number]["errors"] for run in ("bare", "recorded"))
        assert bare == [], _describe(number)
        _, failed = wrapped_calls.expected_data(row, CASES[number].values, parser)
        if not (row.warns and failed and not engine.failed_parses_throw):
            assert recorded == [], _describe(number)
        else:
            warning, = recorded
            assert warning[0] == 2 and " expects " in warning[1], _describe(number)


def test_every_function_but_the_two_oracle_connects_is_installed(runs):
    assert set(runs["bare"].list.values()) == {True}, "without the extension nothing is replaced"
    is_bare = {name.lower(): ours for name, ours in runs["recorded"].list.items()}
    wrapped = {name for name, ours in is_bare.items() if not ours}
    assert wrapped == {row.key for row in ROWS}
    assert set(is_bare) - wrapped == {
        *NEVER_WRAPPED, "cassandra\\cluster\\builder::withcontactpoints"}


def test_cases_reach_every_outcome(parser):
    """The made-up calls are worth something only if each function sees all that can happen."""
    for row in ROWS:
        if not row.layouts:
            continue
        outcomes = collections.Counter()
        fitted = set()
        for number in CASES_OF[row.key]:
            values = CASES[number].values
            data, failed = wrapped_calls.expected_data(row, values, parser)
            outcomes[failed] += 1
            if not failed:
                fitted.add(tuple(name for name, _ in data))
        assert outcomes[False] and outcomes[True], row.key
        if "port" in row.layouts[0][2]:
            assert ("hn",) in fitted and any("pn" in names for names in fitted), row.key
