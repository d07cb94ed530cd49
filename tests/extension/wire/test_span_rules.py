"""Which closed spans are kept: threshold, reuse of keys, limit, and pruning."""
import pytest

THRESHOLD = "kaq.method_threshold"

KEEP = "ini_set('kaq.method_threshold', '0');"
DROP = "ini_set('kaq.method_threshold', '99999');"


def names(wire, collector, source, env=None, **settings):
    given = {"kaq." + name: value for name, value in settings.items()}
    wire.cli(source, settings=given, env=env)
    return collector.payload.names


# Threshold and keys ------------------------------------------------------------------------------

# A function for each duration from 1 to 20 ms, called in turn.
EACH_DURATION = r"""
    for ($n = 1; $n <= 20; $n++) { eval("function f$n() { usleep($n * 1000); } f$n();"); }
"""


@pytest.mark.parametrize("settings, threshold", [
    ({}, 10), ({"method_threshold": 7}, 7), ({"method_threshold": 20}, 20)],
    ids=["default", "shorter", "longer"])
def test_span_that_lasts_as_long_as_the_threshold_or_longer_is_kept(
        wire, collector, still_clock, settings, threshold):
    assert names(wire, collector, EACH_DURATION, still_clock, **settings) == [
        "f%d" % duration for duration in range(threshold, 21)]


def test_key_of_a_dropped_span_is_handed_out_again(wire, collector):
    wire.cli("function s() {} function l() {} %s s(); s(); %s l(); %s s(); %s l();" % (
        DROP, KEEP, DROP, KEEP))
    assert [(span["mo"], span["fn"]) for span in collector.payload.spans] == [
        (0, "main"), (1, "l"), (2, "l")]


def test_chain_of_short_calls_collapses_from_the_bottom_up(wire, collector):
    wire.cli("function a() { b(); } function b() { c(); } function c() { d(); } function d() {}"
             "function l() {} %s a(); %s l();" % (DROP, KEEP))
    assert [(span["mo"], span["fn"]) for span in collector.payload.spans[1:]] == [(1, "l")]


def test_short_parent_of_a_kept_span_is_kept(wire, collector):
    wire.cli("function a() { b(); } function b() { %s c(); %s } function c() {} a();" % (
        KEEP, DROP))
    assert collector.payload.tree() == ("main", [("a", [("b", [("c", [])])])])


def test_short_span_after_a_kept_sibling_is_dropped_and_its_key_reused(wire, collector):
    wire.cli("function k() {} function d() {} " + KEEP + " k(); " + DROP + " d(); d(); "
             + KEEP + " k();")
    assert [(span["mo"], span["fn"]) for span in collector.payload.spans[1:]] == [
        (1, "k"), (2, "k")]


def test_root_is_kept_however_short_it_is(wire, collector):
    assert names(wire, collector, "", method_threshold=99999) == []
    assert collector.payload.root["mo"] == 0


def test_short_spans_left_open_by_exit_are_dropped_innermost_first(wire, collector):
    assert names(wire, collector, "function a() { b(); } function b() { exit; } a();",
                 method_threshold=99999) == []


def test_negative_threshold_keeps_every_span(wire, collector):
    assert names(wire, collector, "function f() {} f();", method_threshold=-5) == ["f"]


def test_a_million_dropped_calls_leave_only_the_root(wire, collector):
    assert names(wire, collector, "function f() {} for ($i = 0; $i < 1000000; $i++) f();",
                 method_threshold=5000) == []


# Limit -------------------------------------------------------------------------------------------

@pytest.mark.parametrize("limit", [0, -1, "none"])
def test_limit_of_zero_or_less_records_nothing_but_the_root(wire, collector, limit):
    assert names(wire, collector, "function f() {} f(); f();", span_limit=limit,
                 method_threshold=0) == []


@pytest.mark.parametrize("limit,kept", [(1, 1), (2, 2), (4, 4), (5, 5), (6, 5)])
def test_calls_after_the_limit_run_unrecorded(wire, collector, limit, kept):
    assert names(wire, collector, "function f() { echo 'x'; } f(); f(); f(); f(); f();",
                 span_limit=limit, method_threshold=0) == ["f"] * kept


def test_calls_open_when_the_limit_is_reached_are_still_kept(wire, collector):
    wire.cli("function a() { b(); } function b() { c(); d(); } function c() {} function d() {}"
             "a(); d();", settings={"kaq.span_limit": 1, THRESHOLD: 0})
    assert collector.payload.tree() == ("main", [("a", [("b", [("c", [])])])])


def test_dropped_spans_do_not_count_towards_the_limit(wire, collector):
    assert names(wire, collector, "function s() {} function l() {}"
                                  "for ($i = 0; $i < 500; $i++) s(); " + KEEP + " l(); l(); l();",
                 span_limit=2, method_threshold=99999) == ["l", "l"]


def test_default_limit_is_ten_thousand_spans(wire, collector):
    assert names(wire, collector, "function f() {} for ($i = 0; $i < 12000; $i++) f();",
                 method_threshold=0) == ["f"] * 10000


def test_limit_counts_anew_in_each_request(wire, collector, worker):
    worker.open("function f() {} f(); f(); f(); f();", {"kaq.span_limit": 3, THRESHOLD: 0})
    for _ in range(3):
        worker.get()
    assert [payload.names for payload in collector.payloads] == [["f", "f", "f"]] * 3


def test_output_of_unrecorded_calls_is_the_same(wire, collector):
    wire.same_as_bare(wire.cli, source="function f($n) { echo $n; return $n ? f($n - 1) : 7; }"
                                       "exit(f(9));", settings={"kaq.span_limit": 0})
    assert collector.payload.names == []


# Pruning -----------------------------------------------------------------------------------------

def tree(wire, collector, source, prune=1):
    """The tree of a run in which a span is unnecessary when it is closed after DROP."""
    wire.cli("function leaf() { %s } function other() {} %s" % (KEEP, source),
             settings={"kaq.prune_intermediate_spans": prune})
    payload = collector.payload
    assert [span["mo"] for span in payload.spans] == list(range(len(payload.spans)))
    return payload.tree()


CHAIN = ("function a() { b(); } function b() { c(); } function c() { leaf(); %s } a();" % DROP)


def test_chain_is_whole_without_pruning(wire, collector):
    assert tree(wire, collector, CHAIN, prune=0) == (
        "main", [("a", [("b", [("c", [("leaf", [])])])])])


def test_pruning_removes_the_links_and_reparents_to_the_nearest_kept_ancestor(wire, collector):
    assert tree(wire, collector, CHAIN) == ("main", [("leaf", [])])


@pytest.mark.parametrize("value", ["2", "-1"])
def test_pruning_is_on_for_every_value_but_zero(wire, collector, value):
    assert tree(wire, collector, CHAIN, prune=value) == ("main", [("leaf", [])])


def test_pruning_keeps_a_necessary_span_in_the_middle(wire, collector):
    assert tree(wire, collector, "function a() { b(); %s } function b() { c(); %s }"
                                 "function c() { leaf(); %s } a();" % (DROP, KEEP, DROP)) == (
        "main", [("b", [("leaf", [])])])


def test_pruning_keeps_unnecessary_spans_that_are_not_their_parent_s_only_child(wire, collector):
    assert tree(wire, collector, "function a() { b(); b(); } function b() { leaf(); %s }"
                                 "a();" % DROP) == (
        "main", [("b", [("leaf", [])]), ("b", [("leaf", [])])])


def test_pruning_counts_children_that_were_dropped_too_which_is_meant(wire, collector):
    assert tree(wire, collector, "function a() { other(); b(); } function b() { leaf(); %s }"
                                 "%s a();" % (DROP, DROP)) == ("main", [("b", [("leaf", [])])])


def test_pruning_keeps_a_chain_below_a_root_with_several_children(wire, collector):
    assert tree(wire, collector, "function a() { b(); } function b() { leaf(); %s }"
                                 "a(); a();" % DROP) == (
        "main", [("a", [("leaf", [])]), ("a", [("leaf", [])])])


def test_pruning_keeps_relative_order_and_numbers_densely(wire, collector):
    wire.cli("function leaf() { %s } function x() { leaf(); %s } function y() { x(); }"
             "function z() { y(); } z(); %s function tail() {} tail(); tail();" % (
                 KEEP, DROP, KEEP), settings={"kaq.prune_intermediate_spans": 1})
    assert [(span["mo"], span["fn"]) for span in collector.payload.spans] == [
        (0, "main"), (1, "z"), (2, "leaf"), (3, "tail"), (4, "tail")]


def test_pruning_a_request_of_only_the_root_changes_nothing(wire, collector):
    assert tree(wire, collector, "") == ("main", [])
    assert collector.payload.root["mo"] == 0


def test_pruning_a_request_of_necessary_spans_changes_nothing(wire, collector):
    assert tree(wire, collector, "function a() { other(); } %s a();" % KEEP) == (
        "main", [("a", [("other", [])])])


def test_pruning_after_exit_deep_in_a_chain(wire, collector):
    assert tree(wire, collector, "function a() { b(); } function b() { leaf(); %s exit; }"
                                 "a();" % DROP) == ("main", [("leaf", [])])


def test_pruning_of_long_chains_and_wide_trees(wire, collector):
    assert tree(wire, collector, "function a($n) { if ($n) a($n - 1); else leaf(); %s }"
                                 "a(3000);" % DROP) == ("main", [("leaf", [])])


def test_pruning_set_by_the_script_holds_for_its_request(wire, collector, worker):
    worker.open("function leaf() { %s } function a() { leaf(); %s }"
                "if ($_GET['q'] == 'on') ini_set('kaq.prune_intermediate_spans', '1'); a();" % (
                  KEEP, DROP))
    for query in ("off", "on", "off"):
        worker.get("/?q=" + query)
    assert [payload.names for payload in collector.payloads] == [
        ["a", "leaf"], ["leaf"], ["a", "leaf"]]
