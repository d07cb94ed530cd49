"""The course of one request as the collector sees it, and what one request leaves to the next."""
import concurrent.futures
import os

import behaviours
import pytest
from engines import KEEP_ALL
from fake_collector import DISABLED, DISABLED_NOTICE, ENABLED, NO_URI_NOTICE, now_ms


def test_monitored_request_asks_once_and_then_sends_one_record(wire, collector):
    wire.cli("echo 'done';")
    collector.settle()
    assert collector.events == ["status", "data"]
    assert (collector.status_connections, collector.data_connections) == (1, 1)
    assert not collector.data_records[0].is_notice


def test_unmonitored_request_asks_once_and_then_sends_the_disabled_notice(wire, collector):
    collector.reply = DISABLED
    wire.cli("function f() {} f();")
    assert collector.notices == [DISABLED_NOTICE]
    assert collector.events == ["status", "data"]


def test_skipped_request_asks_nothing_and_sends_exactly_two_notices(wire, collector):
    wire.cli("function f() {} f();", settings={"kaq.capture_clirequest": 0})
    assert collector.notices == [NO_URI_NOTICE, DISABLED_NOTICE]
    assert collector.events == ["data", "data"] and collector.status_connections == 0


def test_skip_notice_is_sent_at_request_start_and_disabled_notice_at_its_end(wire, collector):
    go_on = wire.directory / "go-on"
    with concurrent.futures.ThreadPoolExecutor() as pool:
        run = pool.submit(wire.cli, "while (!file_exists('%s')) { usleep(1000); }" % go_on,
                          settings={"kaq.capture_clirequest": 0})
        try:
            collector.wait_until(lambda: collector.data_records)
            assert collector.notices == [NO_URI_NOTICE]
        finally:
            go_on.touch()
        run.result()
    assert collector.notices == [NO_URI_NOTICE, DISABLED_NOTICE]


def test_skipped_web_request_sends_exactly_two_notices(wire, collector):
    wire.cgi("echo 1;", REQUEST_URI="?only=query")
    assert collector.notices == [NO_URI_NOTICE, DISABLED_NOTICE]
    assert collector.status_connections == 0


def test_start_time_is_taken_before_the_handshake_and_root_opened_after_it(wire, collector):
    collector.reply = behaviours.answers_after(
        0.2, b'{"instance.id":"i-1","instance.status":920}')
    before = now_ms()
    wire.cli()
    payload, request = collector.payload, collector.request
    assert before <= payload.transaction["s_time"] <= request.received_at < request.answered_at
    assert request.answered_at <= payload.root["st"]


def test_times_are_wall_clock_milliseconds_of_this_run(wire, collector):
    """Pauses keep apart what is told before, in and after the script."""
    before = now_ms()
    told = "$t = gettimeofday(); echo $t['sec'] * 1000 + (int)($t['usec'] / 1000), ' ';"
    out = wire.cli("usleep(5000); %s usleep(20000); %s usleep(5000);" % (told, told)).stdout
    after = now_ms()
    seen = collector.payload.transaction
    begun, done = (int(one) for one in out.split())
    assert before <= seen["s_time"] < begun < done < seen["e_time"] <= after


def test_end_time_is_taken_before_the_open_spans_are_closed(wire, collector):
    wire.cli("usleep(20000);")
    after = now_ms()
    payload = collector.payload
    assert payload.transaction["e_time"] <= payload.root["et"] <= after


def test_open_spans_are_closed_innermost_first_at_request_end(wire, collector):
    wire.cli("function a() { b(); } function b() { c(); } function c() { exit(3); } a();",
             settings=KEEP_ALL)
    payload = collector.payload
    assert payload.tree() == ("main", [("a", [("b", [("c", [])])])])
    ends = [span["et"] for span in payload.spans]
    assert ends == sorted(ends, reverse=True)


def test_destructors_shutdown_functions_and_output_callbacks_still_belong_to_the_request(
        wire, collector):
    wire.cli("""
        class D { function __destruct() {} }
        function late() {}
        function buffer($text) { return $text; }
        ob_start('buffer'); $d = new D; register_shutdown_function('late'); echo 'x';
    """, settings=KEEP_ALL)
    assert collector.payload.tree() == (
        "main", [("late", []), ("D::__destruct", []), ("buffer", [])])


def test_user_code_that_runs_after_request_end_stays_out_of_every_payload(wire, collector, worker):
    worker.open("""
        class Tail {
            public $context;
            function stream_open($p, $m, $o, &$opened) { return true; }
            function stream_write($data) { return strlen($data); }
            function stream_flush() { return true; }
            function stream_close() { helper(); }
        }
        function helper() { }
        stream_wrapper_register('tail', 'Tail');
        $GLOBALS['kept'] = fopen('tail://x', 'w');
        echo getmypid();
    """, KEEP_ALL)
    pids = {worker.get() for _ in range(4)}
    assert len(pids) == 1 and len(collector.payloads) == 4
    for payload in collector.payloads:
        assert [name for name in payload.names if "stream_close" in name or name == "helper"] == []


def test_monitoring_is_decided_anew_for_each_request_of_a_process(wire, collector, worker):
    worker.open("echo getmypid();")
    collector.replies.extend([ENABLED, DISABLED, ENABLED, b"", {"instance.status": 911}, ENABLED])
    pids = {worker.get("/r%d" % number) for number in range(6)}
    assert len(pids) == 1
    assert [payload.transaction["t_name"] for payload in collector.payloads] == [
        "/r0", "/r2", "/r5"]
    assert collector.notices == [DISABLED_NOTICE] * 3


def test_nothing_the_collector_said_is_carried_over_to_the_next_request(wire, collector, worker):
    worker.open("echo 1;")
    collector.replies.extend([
        {"instance.id": "first", "normalised.txn.name": "shop page", "instance.status": 920},
        {"instance.id": "second", "instance.status": 920},
        {"instance.status": 920},
    ])
    for _ in range(3):
        worker.get()
    first, second = collector.payloads
    assert first.application["instance_id"] == "first"
    assert first.transaction["normalised_tname"] == "shop page"
    assert second.application["instance_id"] == "second"
    assert "normalised_tname" not in second.transaction
    assert collector.notices == [DISABLED_NOTICE]


def test_spans_of_an_unmonitored_request_are_not_carried_over(wire, collector, worker):
    worker.open("""
        function deep($n) { if ($n) { deep($n - 1); } elseif ($_GET['q'] == 'off') { exit; } }
        function other() {}
        deep(20); other();
    """, KEEP_ALL)
    collector.replies.extend([DISABLED, ENABLED])
    worker.get("/?q=off")
    worker.get("/?q=on")
    (payload,) = collector.payloads
    assert payload.names == ["deep"] * 21 + ["other"]
    assert [span["mo"] for span in payload.spans] == list(range(23))


def test_spans_of_a_skipped_request_are_not_carried_over(wire, collector):
    server = wire.cgi_server(KEEP_ALL)
    script = wire.script("function f() {} function g() { exit; } f(); f(); g();")
    server.request(script, REQUEST_URI="?skipped")
    server.request(script, REQUEST_URI="/seen")
    (payload,) = collector.payloads
    assert payload.names == ["f", "f", "g"]
    assert collector.notices == [NO_URI_NOTICE, DISABLED_NOTICE]


def test_request_facts_are_not_carried_over_to_a_background_run_of_the_same_process(
        wire, collector):
    server = wire.cgi_server()
    script = wire.script("echo 1;")
    parent = "00-0af7651916cd43dd8448eb211c80319c-b7ad6b7169203331-01"
    server.request(script, REQUEST_URI="/web/page?x=1", QUERY_STRING="x=1",
                   HTTP_TRACEPARENT=parent, HTTP_HOST="first.test")
    server.request(script, REQUEST_URI=None, QUERY_STRING=None, HTTP_HOST=None)
    web, background = collector.payloads
    assert web.transaction["trace_id"] == parent[3:35] and web.root["psi"] == parent[36:52]
    assert background.transaction["transaction_type"] == 0
    assert background.transaction["t_name"] == "/job.php"
    assert background.transaction["http_query_str"] == ""
    assert "http_host" not in background.transaction
    assert background.transaction["trace_id"] != parent[3:35]
    assert "psi" not in background.root


def test_identifiers_are_fresh_in_each_request_of_a_process(wire, collector, worker):
    worker.open("function f() {} f();", KEEP_ALL)
    for _ in range(5):
        worker.get()
    payloads = collector.payloads
    assert len({payload.transaction["trace_id"] for payload in payloads}) == 5
    assert len({span["si"] for payload in payloads for span in payload.spans}) == 10


LONG = "long text " * 500


@pytest.mark.parametrize("status", [920, 0], ids=["monitored", "unmonitored"])
def test_memory_and_descriptors_stay_level_over_many_requests(wire, collector, worker, status):
    collector.reply = {"instance.id": LONG, "normalised.txn.name": LONG, "app.id": LONG,
                       "instance.status": status}
    worker.open("""
        class Closer {
            public $context;
            function stream_open($p, $m, $o, &$opened) { return true; }
            function stream_close() { leaf(1); }
        }
        function leaf($n) { return $n; }
        function branch($n) { return $n ? branch($n - 1) + leaf($n) : 0; }
        branch(40);
        stream_wrapper_register('late', 'Closer');
        $open = fopen('late://x', 'r');
        function quit() { exit('bye'); }
        quit();
    """, dict(KEEP_ALL, **{"kaq.application_name": LONG, "kaq.application_group": LONG,
                           "kaq.remote_exporter_hostname": LONG,
                           "kaq.remote_exporter_ip": "127.0.0.1"}))
    for _ in range(60):
        assert worker.get("/page?a=b", {"X-Sent": "yes"}) == b"bye"
    files, memory = worker.server.open_files(), worker.server.resident_kib()
    for _ in range(400):
        worker.get("/page?a=b", {"X-Sent": "yes"})
    assert worker.server.open_files() <= files + 1
    if not worker.server.keeps_freed_memory:
        assert worker.server.resident_kib() - memory < 1024
    collector.settle()
    assert len(collector.data_records) == 460


def test_work_after_the_response_was_finished_still_belongs_to_the_request(wire, collector):
    server = wire.fpm(KEEP_ALL)
    script = wire.script("function late() {} echo 'out'; fastcgi_finish_request();"
                         "while (!file_exists(__DIR__ . '/go-on')) usleep(1000); late();")
    assert server.request(script).body == b"out"
    answered = now_ms()
    (wire.directory / "go-on").touch()
    collector.wait_until(lambda: collector.data_records)
    assert collector.payload.names == ["late"]
    assert collector.payload.transaction["e_time"] >= answered


def test_module_names_itself_with_its_versions(wire, collector):
    told = wire.php("--ri", "kaq").stdout.decode()
    for row in ("key => value", "kaq.version => 4.9", "kaq.version_info => 4.9.2.0",
                "kaq.date => 15 May 2026"):
        assert row + "\n" in told
    assert wire.cli("echo phpversion('kaq');").stdout == b"4.9"


def test_thread_id_is_the_operating_system_id_of_the_thread(wire, collector, worker):
    worker.open("echo getmypid();")
    pid = int(worker.get())
    seen = collector.payload.transaction["thread_id"]
    assert os.path.isdir("/proc/%d/task/%d" % (pid, seen))
