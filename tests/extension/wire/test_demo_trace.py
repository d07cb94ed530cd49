"""The demo's picture of a distributed trace: transactions made by hand, joined and drawn."""

import contextlib
import copy
import io
import os
import re
import sys

import pytest

DEMO = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "..", "demo")
sys.path.insert(0, DEMO)

import collector as demo_collector  # noqa: E402
import play  # noqa: E402
import trace_view  # noqa: E402
import waterfall  # noqa: E402

START = 1700000000000
TRACE = "0af7651916cd43dd8448eb211c80319c"
SHOP, PRICES, STOCK = play.APPLICATION, "Demo prices", "Demo stock"


def span(key, start, end, name, parent=None, **more):
    """Its identifier is its key in hex; `parent` is one too."""
    made = {"st": START + start, "et": START + end, "mo": key, "fn": name, "cn": "PHP",
            "si": "%016x" % key}
    if parent is not None:
        made["psi"] = "%016x" % parent
    made.update(more)
    return made


def call(key, start, end, parent, url, status=200, name="curl_exec", **more):
    return span(key, start, end, name, parent, cn="HTTP", ex=1, hn=url, esc=status, **more)


def request(application, name, spans, query="item=3", trace=TRACE, code=200, **origin):
    return {"apm": {
        "data": True,
        "application_info": {"application_type": "PHP", "application_name": application,
                             "application_group": "", "instance_id": "i1"},
        "transaction_info": {
            "t_name": name, "http_query_str": query, "s_time": spans[0]["st"],
            "e_time": spans[0]["et"], "http_method_name": "GET", "transaction_type": 1,
            "httpcode": code, "cputime": 1, "memalloc": 1, "trace_id": trace,
            "origin": dict({"async": False}, **origin)},
        "method_info": {"span_info": spans}, "app_parameters": {}}}


ORDER = request(SHOP, "/order", [
    span(0x10, 0, 160, "main"),
    span(0x11, 0, 80, "ask", 0x10),
    span(0x12, 0, 0, "curl_setopt (10002)", 0x11, cn="HTTP"),
    call(0x13, 0, 80, 0x11, "http://127.0.0.1:8081/price?item=3"),
    span(0x14, 80, 80, "curl_multi_exec", 0x10, cn="HTTP"),
    span(0x15, 160, 160, "curl_multi_exec", 0x10, cn="HTTP"),
    call(0x16, 80, 160, 0x15, "http://127.0.0.1:8082/delivery?item=3", 503, "curl_multi_exec",
         ar=True, **{"if": 1}),
])
PRICE = request(PRICES, "/price", [
    span(0x20, 10, 70, "main", 0x13),
    call(0x21, 10, 60, 0x20, "http://127.0.0.1:8082/left?item=3",
         erqh=["traceparent: 00-x", "Accept: application/json"],
         ersh={"Host": "x\r\n", "Content-Type": "application/json\r\n"}),
], flow="demo-shop;")
LEFT = request(STOCK, "/left", [span(0x30, 20, 50, "main", 0x21)],
               flow="demo-shop;demo-prices;")
DELIVERY = request(STOCK, "/delivery", [span(0x40, 90, 150, "main", 0x16)], code=503,
                   **{"flow": "demo-shop;", "async": True})
DOCUMENTS = [ORDER, PRICE, LEFT, DELIVERY]

DRAWN = [
    "━━ trace " + TRACE + " " + "━" * 54,
    "  Demo shop · Demo prices · Demo stock · 4 requests · 3 HTTP calls · 160 ms",
    "",
    "  Demo shop /order?item=3             " + "█" * 49 + "   160 ms",
    "    GET · status 200",
    "    ask                               " + "█" * 24 + "▌" + " " * 24 + "    80 ms",
    "      curl_exec [HTTP]                " + "█" * 24 + "▌" + " " * 24 + "    80 ms",
    "        http://127.0.0.1:8081/price?item=3 · status 200 · span 0000000000000013",
    "        Demo prices /price?item=3     " + "   " + "█" * 18 + "▍" + " " * 27 + "    60 ms",
    "          GET · status 200 · flow demo-shop; · caller 0000000000000013",
    "          curl_exec [HTTP]            " + "   " + "█" * 15 + "▍" + " " * 30 + "    50 ms",
    "            http://127.0.0.1:8082/left?item=3 · status 200 · span 0000000000000021",
    "            sent Accept: application/json · received Content-Type: application/json",
    "            Demo stock /left?item=3   " + " " * 6 + "█" * 9 + "▎" + " " * 33 + "    30 ms",
    "              GET · status 200 · flow demo-shop;demo-prices; · caller 0000000000000021",
    "    curl_multi_exec [HTTP]            " + " " * 48 + "▏     0 ms",
    "      curl_multi_exec [HTTP] (async)  " + " " * 24 + "█" * 25 + "    80 ms",
    "        http://127.0.0.1:8082/delivery?item=3 · status 503 · span 0000000000000016",
    "        failed    exception",
    "        Demo stock /delivery?item=3   " + " " * 27 + "█" * 18 + "▉" + " " * 3 + "    60 ms",
    "          GET · status 503 · flow demo-shop; · called async"
    " · caller 0000000000000016",
    "  … and 2 calls of less than 3 ms that carry nothing",
]


def test_hand_made_trace_is_drawn_line_by_line_in_whatever_order_it_arrives():
    for order in (DOCUMENTS, DOCUMENTS[::-1], DOCUMENTS[2:] + DOCUMENTS[:2]):
        assert trace_view.render_trace(order, 96) == DRAWN
    assert trace_view.loose_ends(trace_view.join(DOCUMENTS)) == []


def test_colour_changes_nothing_but_the_escapes_and_each_application_has_its_own():
    painted = trace_view.render_trace(DOCUMENTS, 96, colour=True)
    assert [re.sub(r"\x1b\[\d*m", "", line).rstrip() for line in painted] == DRAWN
    summary = painted[1]
    assert "\x1b[34mDemo shop" in summary and "\x1b[35mDemo prices" in summary
    assert "\x1b[33mDemo stock" in summary
    (prices,) = [line for line in painted if "Demo prices /price" in line]
    (left,) = [line for line in painted if "Demo stock /left" in line]
    assert prices.count("\x1b[35m") == 2 and left.count("\x1b[33m") == 2
    (failed,) = [line for line in painted if "(async)" in line]
    assert failed.count("\x1b[31m") == 2, "a failed call stands out"


@pytest.mark.parametrize("width, drawn", [(20, 80), (80, 80), (97, 97), (120, 120), (300, 120)])
def test_lines_keep_to_the_terminal_held_between_80_and_120(width, drawn):
    lines = trace_view.render_trace(DOCUMENTS, width)
    assert max(waterfall.cell_width(line) for line in lines) == drawn
    assert any(line.strip() == "caller 0000000000000016" for line in lines) == (drawn < 96)


def test_request_hangs_below_the_span_that_its_root_names_and_nowhere_else():
    moved = copy.deepcopy(DOCUMENTS)
    moved[2]["apm"]["method_info"]["span_info"][0]["psi"] = "%016x" % 0x11
    lines = trace_view.render_trace(moved, 96)
    at = [position for position, line in enumerate(lines) if "Demo stock /left" in line]
    assert len(at) == 1
    assert lines[at[0]].startswith("      Demo stock /left"), "one level below ask"
    assert "Demo stock /delivery" not in "".join(lines[:at[0]])
    assert "curl_multi_exec" in lines[at[0] + 2], "after all that ask has called itself"
    assert trace_view.loose_ends(trace_view.join(moved)) == [
        "Demo prices called http://127.0.0.1:8082/left?item=3 (span 0000000000000021), "
        "and no request names that span as its caller"]


def test_caller_that_did_not_arrive_is_said_and_its_request_stands_alone():
    lines = trace_view.render_trace([PRICE, LEFT], 96)
    assert lines[3].startswith("  Demo prices /price?item=3 ")
    assert trace_view.loose_ends(trace_view.join([PRICE, LEFT])) == [
        "Demo prices /price?item=3 was called by span 0000000000000013, which did not arrive"]


def test_two_requests_of_one_call_stand_below_it_in_the_order_of_their_start():
    again = copy.deepcopy(PRICE)
    for made in again["apm"]["method_info"]["span_info"]:
        made["st"] += 62
        made["et"] = made["st"] + 5
        made["si"] = "f" + made["si"][1:]
    again["apm"]["transaction_info"]["t_name"] = "/redirected"
    lines = trace_view.render_trace([again, ORDER, PRICE, LEFT, DELIVERY], 96)
    names = [match.group(1) for match in
             (re.match(r"        Demo prices (/\w+)", line) for line in lines) if match]
    assert names == ["/price", "/redirected"]


def test_callers_in_a_ring_end_and_lose_nothing():
    left = request(SHOP, "/left", [span(1, 0, 9, "main", 2)])
    right = request(STOCK, "/right", [span(2, 0, 9, "main", 1)])
    itself = request(PRICES, "/self", [span(3, 0, 9, "main", 3)])
    text = "\n".join(trace_view.render_trace([left, right, itself], 80))
    assert [text.count(name) for name in ("/left", "/right", "/self")] == [1, 1, 1]


def test_a_long_chain_of_services_stays_within_the_width():
    documents = [request("app %d" % hop, "/", [
        span(2 * hop, hop, 4000 - hop, "main", 2 * hop - 1 if hop else None),
        call(2 * hop + 1, hop, 4000 - hop, 2 * hop, "http://127.0.0.1/")]) for hop in range(1500)]
    lines = trace_view.render_trace(documents, 80, max_spans=5000)
    assert sum(" app " in line and "█" in line for line in lines) == 1500
    assert max(map(waterfall.cell_width, lines)) <= 80


def test_short_calls_are_drawn_if_they_carry_something_or_something_below_them_does():
    spans = [span(1, 0, 1000, "main"), span(2, 0, 19, "short", 1), span(3, 0, 20, "long", 1),
             span(4, 20, 21, "outer", 1), span(5, 20, 20, "PDO::query", 4, cn="PDO", qs="SELECT 1"),
             span(6, 20, 20, "sibling", 4)]
    lines = trace_view.render_trace([request(SHOP, "/", spans, "")], 80)
    drawn = [line.split()[0] for line in lines[3:] if line.endswith(" ms")]
    assert drawn == ["Demo", "long", "outer", "PDO::query"]
    assert lines[-1] == "  … and 2 calls of less than 20 ms that carry nothing"


@pytest.mark.parametrize("value", [None, True, -1, 1.5, 10**30, "text", "long " * 40, [], [[]], {},
                                   {"a": [1]}], ids=lambda value: repr(value)[:12])
def test_any_member_may_have_any_type(value):
    def flipped(node, name):
        if isinstance(node, dict):
            return {key: value if key == name else flipped(entry, name)
                    for key, entry in node.items()}
        if isinstance(node, list):
            return [flipped(entry, name) for entry in node]
        return node

    def members(node):
        entries = node.values() if isinstance(node, dict) else node
        found = set(node) if isinstance(node, dict) else set()
        return found.union(*(members(entry) for entry in entries
                             if isinstance(entry, (dict, list))))

    names = members(DOCUMENTS)
    assert len(names) > 30
    for name in sorted(names):
        documents = [flipped(document, name) for document in DOCUMENTS]
        lines = trace_view.render_trace(documents, 80)
        assert max(map(waterfall.cell_width, lines)) <= 80, name
        trace_view.loose_ends(trace_view.join(documents))


def test_each_application_has_an_identifier_of_its_own_and_keeps_it():
    names = ["Demo shop", "demo-SHOP", "Demo stock", "", "読", 'a;b",c', "x" * 300]
    ids = demo_collector.Identifiers()
    made = [ids.of(name) for name in names]
    assert made == ["demo-shop", "demo-shop-2", "demo-stock", "application", "application-2",
                    "a-b-c", "x" * 40]
    assert [ids.of(name) for name in names] == made


@pytest.mark.parametrize("told, name", [
    ({"connect_info": {"agent_info": {"application.name": "Shop"}}}, "Shop"),
    ({"connect_info": {"agent_info": {"application.name": 7}}}, ""),
    ({"connect_info": []}, ""), ([], ""), (None, "")])
def test_handshake_tells_the_application_or_nobody(told, name):
    assert demo_collector.application_of(told) == name


@pytest.fixture
def collector():
    listening = demo_collector.Collector(0, 0)
    yield listening
    listening.stop()


def shown(collector, documents, seconds=play.ARRIVAL_SECONDS):
    for document in documents:
        collector.events.put(("transaction", document))
    written = io.StringIO()
    with contextlib.redirect_stdout(written):
        play.show_trace(collector, "/order", (96, False), seconds)
    return written.getvalue().split("\n")


def test_demonstration_waits_for_the_whole_trace_and_passes_over_others(collector):
    others = [request(STOCK, "/left", [span(0x50, 0, 9, "main", 0x21)], trace="f" * 32),
              request("alien", "/", [span(0x60, 0, 9, "main", 0x21)])]
    assert shown(collector, others + [LEFT, DELIVERY, ORDER, PRICE]) == DRAWN + ["", ""]


@pytest.mark.parametrize("documents, said", [
    ([ORDER, PRICE, LEFT], "Demo shop called http://127.0.0.1:8082/delivery?item=3 (span "
     "0000000000000016), and no request names that span as its caller."),
    ([ORDER, LEFT, DELIVERY], "No request of Demo prices is in the trace."),
    ([ORDER, LEFT, DELIVERY], "Demo stock /left?item=3 was called by span 0000000000000021, "
     "which did not arrive."),
    ([PRICE, LEFT, DELIVERY], "No request of Demo shop is in the trace."),
    ([], "No request of Demo shop is in the trace."),
])
def test_trace_with_a_gap_fails_and_says_what_is_missing(collector, documents, said):
    with pytest.raises(play.DemoFailed) as failure:
        shown(collector, documents, seconds=0.1)
    told = str(failure.value).split("\n")
    assert told[0] == "The trace of /order is not complete after 0.1 seconds:"
    assert said in told[1:]
