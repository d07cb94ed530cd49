"""Verbs from end to end: payloads go in, and what they say comes out."""
import json
import os
import re
import subprocess

import pytest

import requests_of
import sockets
from requests_of import span

TRACE = "0af7651916cd43dd8448eb211c80319c"


def out(done):
    assert (done.returncode, done.stderr) == (0, "")
    return done.stdout


def rows(text):
    """The first words of each line but the titles."""
    return [line.split()[0] for line in text.splitlines()[1:]]


@pytest.fixture
def cart(collector):
    requests_of.send_cart(collector, "00000000000000c1", items=61, t_name="/cart/7")
    requests_of.send_cart(collector, "00000000000000c2", items=5, t_name="/cart/8")
    return collector


def test_find_lists_what_fulfils_the_query(cart):
    assert set(rows(out(cart.run("find")))) == {"00000000000000c1", "00000000000000c2"}
    assert rows(out(cart.run("find", "txn:/cart/* queries:>50"))) == ["00000000000000c1"]
    assert rows(out(cart.run("find", "--slowest"))) == ["00000000000000c1", "00000000000000c2"]


def test_find_says_when_there_is_more(cart):
    done = cart.run("find", "-n", "1", "--slowest")
    assert rows(done.stdout) == ["00000000000000c1"]
    assert "-n N" in done.stderr


def test_find_has_exit_statuses_for_scripts(cart):
    assert cart.run("find", "app:nobody").returncode == 1
    done = cart.run("find", "app:Shop tnx:/cart")
    assert done.returncode == 2
    assert "column 10" in done.stderr and "txn:" in done.stderr
    assert cart.run("find", "--nonsense").returncode == 2
    assert cart.run("find", "--help").returncode == 0


def test_a_query_may_begin_with_what_must_not_hold(cart):
    assert "/cart" in cart.run("find", "-txn:/other").stdout
    assert cart.run("find", "-txn:/cart*").returncode == 1
    assert cart.run("find", "-n", "1", "-is:failed").returncode == 0
    assert cart.run("find", "-q:1").returncode == 2


def test_find_as_json_is_what_http_answers(cart):
    found = json.loads(out(cart.run("find", "--slowest", "--json")))
    assert [each["id"] for each in found["requests"]] == ["00000000000000c1", "00000000000000c2"]
    assert found["requests"][0]["queries"] == 61
    assert found["requests"][0]["duration_ms"] == 650


def test_show_folds_what_repeats_and_says_the_verdict(cart):
    shown = out(cart.run("show", "00000000000000c1"))
    assert "61 times the same statement" in shown
    lines = [line for line in shown.splitlines() if "FROM item" in line and "×" in line]
    assert len(lines) == 1 and "61 × SELECT" in lines[0] and "610 ms" in lines[0]
    assert "View::render" in shown


def test_show_fits_the_terminal(cart, monkeypatch):
    for width in (60, 80, 140):
        monkeypatch.setenv("COLUMNS", str(width))
        shown = out(cart.run("show", "00000000000000c1"))
        waterfall = shown[shown.index("total"):shown.index("calls within")]
        assert max(len(line) for line in waterfall.splitlines()) <= width


def test_show_takes_the_beginning_of_an_id(cart):
    shown = json.loads(out(cart.run("show", "00000000000000c2", "--json")))
    assert shown["request"]["id"] == "00000000000000c2" and len(shown["spans"]) == 8
    assert cart.run("show", "ffffffff").returncode == 1


def test_show_a_trace_across_services(collector):
    call = "00000000000000d9"
    requests_of.send(collector, [
        span("00000000000000d1", 0, 200, "main", parent=None),
        span(call, 50, 150, "curl_exec", "HTTP", parent="00000000000000d1", ex=True,
             hn="http://stock/items/7", esc=200)], application="Shop", trace=TRACE)
    requests_of.send(collector, [
        span("00000000000000d2", 60, 140, "main", parent=None, psi=call),
        span(9, 60, 130, "Stock::load", parent="00000000000000d2")],
        name="/items/7", application="Stock", trace=TRACE)
    shown = out(collector.run("show", TRACE))
    assert "2 requests" in shown
    shop, stock = shown.index("Shop  GET /cart"), shown.index("Stock  GET /items/7")
    assert shop < shown.index("http://stock/items/7", shop) < stock < shown.index("Stock::load")
    assert "1 more request of this trace" in out(collector.run("show", "00000000000000d1"))


def test_failures_are_shown_where_they_happened(collector):
    requests_of.send(collector, [
        span("00000000000000e1", 0, 20, "main", parent=None),
        span(1, 0, 10, "Cart::add", parent="00000000000000e1", ei=[
            {"err_clz": "DomainException", "filename": "/srv/Cart.php", "linenumber": 12,
             "time": requests_of.NOW + 5, "level": "Error", "str": "no stock\x1b[31m of 7"}])],
        httpcode=500)
    shown = out(collector.run("show", "00000000000000e1"))
    assert "DomainException: no stock?[31m of 7 (Cart.php:12)" in shown
    assert "\x1b" not in shown


def test_compare_says_what_grew(cart):
    shown = out(cart.run("compare", "00000000000000c2", "00000000000000c1"))
    assert "+560 ms" in shown and "5 to 61 calls" in shown
    typical = json.loads(out(cart.run("compare", "00000000000000c1", "--typical", "--json")))
    assert typical["typical"]["requests"] == 1
    assert typical["differences"][0]["growth_ms"] == 560
    assert cart.run("compare", "00000000000000c1").returncode == 2


@pytest.mark.parametrize("form", ["speedscope", "perfetto", "json"])
def test_export_writes_json(cart, form):
    assert "Cart::items" in json.dumps(json.loads(
        out(cart.run("export", "--format", form, "00000000000000c1"))))
    assert cart.run("export", "--format", "pdf", "00000000000000c1").returncode == 2


def test_export_writes_a_file_that_shows_itself(cart):
    written = cart.run("export", "--format", "html", "00000000000000c1")
    if written.returncode == 1 and "built without its pages" in written.stderr:
        pytest.skip("the collector was built without npm")
    text = out(written)
    assert "Cart::items" in text and "Content-Security-Policy" in text
    assert text.count("<script>") == 1
    assert cart.run("export", "--format", "html", "ffffffff").returncode == 1


def test_pinned_requests_say_so(cart):
    out(cart.run("pin", "00000000000000c1"))
    assert "pinned" in out(cart.run("show", "00000000000000c1"))
    out(cart.run("unpin", "00000000000000c1"))
    assert "pinned" not in out(cart.run("show", "00000000000000c1"))
    again = cart.run("unpin", "00000000000000c1")
    assert (again.returncode, again.stderr) == (1, "kaq: '00000000000000c1' is not pinned\n")
    assert cart.run("pin", "ffffffff").returncode == 1


def test_forget_needs_to_be_sure(cart):
    assert cart.run("forget", "id:00000000000000c1").returncode == 2
    assert len(rows(out(cart.run("find")))) == 2
    assert "1 request deleted" in out(cart.run("forget", "--yes", "id:00000000000000c1"))
    assert rows(out(cart.run("find"))) == ["00000000000000c2"]
    assert cart.run("forget", "--yes", "id:00000000000000c1").returncode == 1


def test_mark_says_what_it_marked(collector):
    marked = out(collector.run("mark", "release 7", "--app", "Shop"))
    assert re.match(r"marked \d{4}-\d\d-\d\d .*: release 7\n", marked)


def test_export_takes_json_as_every_verb_does(cart):
    exported = out(cart.run("export", "--json", "00000000000000c1"))
    assert exported == out(cart.run("export", "--format", "json", "00000000000000c1"))
    assert json.loads(exported)
    assert cart.run("export", "--json", "--format", "html", "00000000000000c1").returncode == 2


def verbs(program, *path):
    """Every verb that can be typed, and those of verbs."""
    text = subprocess.run([program, *path, "-h"], capture_output=True, text=True, timeout=30).stdout
    listed = text.partition("Subcommands:\n")[2]
    found = re.findall(r"^  (\w+) ", listed, re.MULTILINE)
    return [each for name in found for each in verbs(program, *path, name)] or [(path, text)]


def test_help_tells_of_every_verb_its_statuses_and_that_it_has_json():
    found = verbs(os.environ["KAQ_COLLECTOR"])
    assert {("find",), ("config", "check"), ("mark",), ("collect",)} <= {path for path, _ in found}
    for path, text in found:
        assert "Exit status: 0 done; 1" in text, path
        assert re.search(r"^\s+--json\b", text, re.MULTILINE), path
        assert "[]" not in text and ":FLOAT" not in text, text


@pytest.mark.parametrize("arguments, said", [
    (["bogus"], "there is no verb 'bogus'"), (["finds", "x"], "there is no verb 'finds'"),
    (["collect", "--handshake", "99999"], "not in range 0 to 65535")])
def test_what_is_wrong_on_the_command_line_is_named(arguments, said):
    done = subprocess.run([os.environ["KAQ_COLLECTOR"], *arguments], capture_output=True, text=True,
                          timeout=30)
    assert (done.returncode, done.stdout) == (2, "") and said in done.stderr


@pytest.mark.parametrize("arguments", [["find"], ["show", "00000000000000c1"], ["top", "--since", "2000-01-01"],
                                       ["config", "show"], ["-h"]])
def test_output_that_cannot_be_written_is_a_failure(cart, arguments):
    place = [] if arguments[0] in ("-h", "config") else ["--store", str(cart.store)]
    with open("/dev/full", "w") as full:
        done = subprocess.run([cart.program, *arguments, *place], stdout=full, stderr=subprocess.PIPE,
                              text=True, timeout=30)
    assert done.returncode == 1 and "cannot be written" in done.stderr


def test_a_collector_says_as_json_where_it_listens(tmp_path):
    (tmp_path / "store").mkdir()
    process = subprocess.Popen(
        [os.environ["KAQ_COLLECTOR"], "collect", "--json", "--handshake", "0", "--data", "0", "--http",
         "0", "--store", str(tmp_path / "store")], stdout=subprocess.PIPE, text=True)
    try:
        told = json.loads(process.stdout.readline())
        assert told["process"] == process.pid and told["store"] == str(tmp_path / "store")
        assert told["addresses"] == ["127.0.0.1"]
        for port in ("handshake_port", "data_port", "http_port"):
            sockets.connect(told[port]).close()
    finally:
        process.terminate()
        assert process.wait(timeout=30) == 0


def test_a_long_trace_is_listed_in_part(collector):
    for number in range(25):
        requests_of.send(collector, [span(0x1000 + number, number, number + 5, "main", parent=None)],
                         httpcode=500 if number == 24 else 200)
    shown = out(collector.run("show", TRACE))
    assert shown.startswith("trace " + TRACE) and "25 requests" in shown
    assert len(re.findall(r"^0{12}10\w\w ", shown, re.MULTILINE)) == 20
    assert "and 5 more requests, 1 of them failed: --all shows them\n" in shown
    whole = out(collector.run("show", "--all", TRACE))
    assert len(re.findall(r"^0{12}10\w\w ", whole, re.MULTILINE)) == 25 and "more request" not in whole


def test_marks_are_listed_and_removed(collector):
    none = collector.run("mark", "--list")
    assert (none.returncode, none.stdout) == (1, "") and "no mark" in none.stderr
    out(collector.run("mark", "release 7", "--app", "Shop", "--at", "2h"))
    marked = json.loads(out(collector.run("mark", "release 8", "--json")))
    listed = out(collector.run("mark", "--list")).splitlines()
    assert listed[0].split() == ["id", "time", "application", "text"]
    assert [re.search(r"release \d", line).group() for line in listed[1:]] == ["release 7", "release 8"]
    assert listed[2].split()[0] == marked["id"]
    recent = json.loads(out(collector.run("mark", "--list", "--since", "1h", "--json")))
    assert recent["marks"] == [marked]
    last = collector.run("mark", "--list", "-n", "1")
    assert "release 8" in last.stdout and "release 7" not in last.stdout and "-n N" in last.stderr
    assert "release 8" in out(collector.run("mark", "--remove", marked["id"][:6]))
    left = json.loads(out(collector.run("mark", "--list", "--json")))
    assert [each["text"] for each in left["marks"]] == ["release 7"]
    again = collector.run("mark", "--remove", marked["id"])
    assert again.returncode == 1 and "there is no such mark" in again.stderr


@pytest.mark.parametrize("arguments", [
    [], ["text", "--list"], ["--list", "--remove", "0000"], ["text", "--since", "1h"],
    ["--list", "--at", "1h"], ["--remove", "0000", "-n", "1"]])
def test_mark_does_one_thing_at_a_time(collector, arguments):
    done = collector.run("mark", *arguments)
    assert (done.returncode, done.stdout) == (2, "") and done.stderr


def test_a_store_is_read_without_a_collector(cart):
    shown = cart.run("show", "00000000000000c1", "--json")
    assert cart.stop() == (0, "")
    assert cart.run("show", "00000000000000c1", "--json").stdout == shown.stdout
    assert set(rows(out(cart.run("find")))) == {"00000000000000c1", "00000000000000c2"}
    done = cart.run("pin", "00000000000000c1")
    assert done.returncode == 1 and "kaq collect" in done.stderr


@pytest.mark.parametrize("arguments, name", [
    ([], "kaq"), (["show"], "kaq show"), (["mark"], "kaq mark"), (["find", "--no-such"], "kaq find")])
def test_what_is_missing_is_said_with_where_to_read_on(arguments, name):
    done = subprocess.run([os.environ["KAQ_COLLECTOR"], *arguments], capture_output=True, text=True,
                          timeout=60)
    assert done.returncode == 2
    first, second = done.stderr.splitlines()
    assert first.startswith("kaq: ") and second == "'%s -h' tells what is expected" % name


# The superuser may do everything as long as it has these.
WITHOUT_PRIVILEGES = ["setpriv", "--bounding-set=-dac_override,-dac_read_search"]


@pytest.mark.parametrize("verb", [["tail"], ["open"], ["mark", "x"], ["resume"]])
def test_who_may_not_ask_the_collector_is_told_that(collector, verb):
    collector.store.chmod(0)
    try:
        done = subprocess.run(
            [*(WITHOUT_PRIVILEGES if os.geteuid() == 0 else []), collector.program, *verb, "--store",
             str(collector.store)], capture_output=True, text=True, timeout=60)
    finally:
        collector.store.chmod(0o700)
    assert done.returncode == 1
    assert re.search(r"^kaq: a collector may run, but you may not use .*collector\.sock: ask as "
                     r"root, or as a member of the group kaq$", done.stderr, re.MULTILINE)


def test_the_doctor_knows_that_it_may_not_ask(collector):
    collector.store.chmod(0)
    try:
        done = subprocess.run(
            [*(WITHOUT_PRIVILEGES if os.geteuid() == 0 else []), collector.program, "doctor",
             "--json", "--store", str(collector.store)], capture_output=True, text=True, timeout=60)
    finally:
        collector.store.chmod(0o700)
    said = {check["subject"]: check for check in json.loads(done.stdout)["checks"]}
    assert said["collector"]["health"] == "unknown" and "may run" in said["collector"]["what"]
