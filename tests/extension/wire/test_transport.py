"""Connections to the collector: where they go, and what a faulty collector leads to."""
import json
import sys

import behaviours
import engines
import pytest
from fake_collector import DISABLED, DISABLED_NOTICE, ENABLED, FakeCollector

ANSWER = json.dumps(ENABLED).encode()
LONGEST_ANSWER = 5 << 20

# Ends with a status of its own, ten calls deep, and shows what an extension might disturb.
SCRIPT = """
function f($n) { if ($n) return f($n - 1); echo 'out'; var_dump(error_get_last()); exit(11); }
echo json_last_error(); var_dump(new stdClass, fopen('php://memory', 'r'), headers_list()); f(10);
"""


def padded(size):
    """An enabling answer of exactly size bytes that counts only when it is read to its end."""
    start, end = b'{"pad":"', b'","instance.id":"i-1","instance.status":920}'
    return start + b"x" * (size - len(start) - len(end)) + end


def assert_unmonitored(collector):
    assert collector.notices == [DISABLED_NOTICE]


# Addresses ---------------------------------------------------------------------------------------

@pytest.fixture
def elsewhere():
    """A collector at a loopback address that is not the default one."""
    listening = FakeCollector("127.77.3.1")
    yield listening
    listening.close()


def run_at(wire, target, **settings):
    given = {"kaq.status_port": target.status_port, "kaq.data_port": target.data_port}
    given.update({"kaq.remote_exporter_" + name: value for name, value in settings.items()})
    return wire.cli("echo 1;", settings=given)


def test_default_address_is_the_local_host(wire, collector):
    run_at(wire, collector)
    assert collector.payload.spans


@pytest.mark.parametrize("settings", [
    {"ip": "127.77.3.1"}, {"ip": "127.77.3.1", "hostname": "127.0.0.1"},
    {"hostname": "127.77.3.1"}, {"ip": "", "hostname": "127.77.3.1"}], ids=str)
def test_address_setting_wins_over_host_name_and_local_host(wire, elsewhere, settings):
    run_at(wire, elsewhere, **settings)
    elsewhere.settle()
    assert elsewhere.events == ["status", "data"] and elsewhere.payload.spans


@pytest.mark.parametrize("settings", [
    {"hostname": "localhost"}, {"hostname": "127.0.0.1"}, {"ip": "", "hostname": ""},
    {"hostname": "no..such..name"}, {"hostname": "x" * 300}], ids=lambda s: str(s)[:40])
def test_host_name_that_is_local_empty_or_unknown_leads_to_the_local_host(
        wire, collector, settings):
    run_at(wire, collector, **settings)
    assert collector.payload.spans


@pytest.mark.parametrize("text", [
    "not an address", "127.0.0", "1.2.3.4.5", "::1", "localhost", "x" * 200, " 127.77.3.1"])
def test_address_that_cannot_be_parsed_is_0_0_0_0_and_so_this_machine_which_is_meant(
        wire, collector, text):
    run_at(wire, collector, ip=text, hostname="127.77.3.1")
    assert collector.payload.spans


PRIVATE_HOSTS = 'mount --bind "$0" /etc/hosts && exec "$@"'
LIST_ADDRESSES = ("import socket; print(*(entry[4][0] for entry in socket.getaddrinfo("
                  "'collector.test', None, socket.AF_INET, socket.SOCK_STREAM)))")


def test_last_ipv4_address_of_a_host_name_wins_which_is_meant(wire, tmp_path):
    table = tmp_path / "hosts"
    table.write_text("".join("127.77.3.%d collector.test\n" % last for last in (8, 1, 5)))
    with_hosts = ["unshare", "--mount", "sh", "-c", PRIVATE_HOSTS, str(table)]
    listed = engines.run([*with_hosts, sys.executable, "-c", LIST_ADDRESSES])
    if listed.status != 0:
        pytest.skip("no private mount namespace for a host table of our own")
    addresses = listed.stdout.decode().split()
    assert len(set(addresses)) == 3
    last = FakeCollector(addresses[-1])
    try:
        engines.run([*with_hosts, wire.engine.php, *wire.options({
            "kaq.status_port": last.status_port, "kaq.data_port": last.data_port,
            "kaq.remote_exporter_hostname": "collector.test"}), str(wire.script(""))])
        last.settle()
        assert last.events == ["status", "data"]
    finally:
        last.close()


# Ports -------------------------------------------------------------------------------------------

@pytest.mark.parametrize("turns", [1, -1, 3])
def test_port_out_of_range_is_taken_modulo_65536_as_a_plain_cast_does(wire, collector, turns):
    wire.cli("echo 1;", settings={"kaq.status_port": collector.status_port + turns * 65536,
                                  "kaq.data_port": collector.data_port - turns * 65536})
    assert collector.payload.spans


@pytest.mark.parametrize("port", ["0", "65536", "text", "-65536"])
def test_port_zero_reaches_nobody(wire, collector, port):
    result = wire.same_as_bare(wire.cli, source=SCRIPT, settings={"kaq.status_port": port})
    assert result.seconds < 8
    assert_unmonitored(collector)
    assert collector.status_connections == 0


def test_data_port_that_is_taken_by_nobody_loses_the_payload_silently(wire, collector):
    result = wire.same_as_bare(wire.cli, source=SCRIPT, settings={"kaq.data_port": 0})
    collector.settle()
    assert collector.events == ["status"] and result.seconds < 8


@pytest.mark.parametrize("settings", [
    {"kaq.remote_exporter_ip": "127.77.3.200"},
    {"kaq.remote_exporter_ip": "255.255.255.255"}, {"kaq.remote_exporter_ip": "0.0.0.1"},
], ids=str)
def test_no_collector_at_the_address(wire, collector, settings):
    result = wire.same_as_bare(wire.cli, source=SCRIPT, settings=settings)
    assert result.seconds < 8
    collector.settle()
    assert collector.events == []


# Answers -----------------------------------------------------------------------------------------

@pytest.mark.parametrize("size", [
    100, 1023, 1024, 4094, 4095, 4096, 4097, 5119, 5120, 5121, 8191, 8192, 8193, 65536, 5000000,
    LONGEST_ANSWER])
def test_answer_of_any_size_is_kept_whole(wire, collector, size):
    collector.reply = padded(size)
    assert len(collector.reply) == size
    wire.same_as_bare(wire.cli, source=SCRIPT)
    assert collector.payload.application["instance_id"] == "i-1"


def test_answer_that_is_too_long_counts_as_empty(wire, collector):
    collector.reply = padded(LONGEST_ANSWER + 1)
    wire.same_as_bare(wire.cli, source=SCRIPT)
    assert_unmonitored(collector)


@pytest.mark.parametrize("size,piece", [(46, 1), (4097, 1), (9000, 1000), (20000, 4095)])
def test_answer_in_small_pieces_is_put_together(wire, collector, size, piece):
    collector.reply = behaviours.answers_in_pieces(ANSWER if size == 46 else padded(size), piece)
    wire.same_as_bare(wire.cli, source=SCRIPT)
    assert collector.payload.application["instance_id"] == "i-1"


@pytest.mark.parametrize("missing", [1, 2, 10, 40])
def test_truncated_answer_counts_as_empty(wire, collector, missing):
    collector.reply = ANSWER[:-missing]
    wire.same_as_bare(wire.cli, source=SCRIPT)
    assert_unmonitored(collector)


@pytest.mark.parametrize("fault", [
    behaviours.closes_at_once, behaviours.closes_without_answer, behaviours.resets,
    behaviours.resets_at_once, behaviours.answers_then_resets(ANSWER)],
    ids=lambda fault: fault.__name__)
def test_connection_that_breaks_leaves_the_request_unmonitored(wire, collector, fault):
    collector.reply = fault
    result = wire.same_as_bare(wire.cli, source=SCRIPT)
    assert_unmonitored(collector)
    assert collector.status_connections == 1 and result.seconds < 8


@pytest.mark.parametrize("fault", [
    behaviours.never_answers, behaviours.answers_then_holds(ANSWER),
    behaviours.answers_then_holds(b"{"), behaviours.answers_in_pieces(ANSWER, 1, 0.1),
    behaviours.answers_after(1.6, ANSWER)], ids=lambda fault: fault.__name__)
def test_answer_that_does_not_end_within_a_second_counts_as_empty(wire, collector, fault):
    collector.reply = fault
    result = wire.cli(SCRIPT)
    assert result.status == 11 and b"out" in result.stdout
    assert 0.9 < result.seconds < 8
    collector.release_held()
    collector.wait_until(lambda: collector.data_records)
    assert [record.text for record in collector.data_records] == [DISABLED_NOTICE]
    assert len(collector.status_requests) == 1


def test_answer_just_in_time_is_taken(wire, collector):
    collector.reply = behaviours.answers_after(0.6, ANSWER)

    def is_taken():
        collector.forget()
        wire.cli()
        return bool(collector.payloads)

    # A busy machine makes one late now and then, but not each of them.
    assert any(is_taken() for _ in range(5))


def test_next_request_is_not_affected_by_any_fault_before_it(wire, collector, worker):
    worker.open("function f() {} f(); echo 'out';", {"kaq.method_threshold": 0})
    for fault in (behaviours.closes_at_once, behaviours.resets, b"garbage", b"", padded(5000000),
                  behaviours.never_answers, b"[920]", DISABLED, b"\xff\x00"):
        collector.replies.append(fault)
        assert worker.get("/faulty") == b"out"
        assert worker.get("/after") == b"out"
    seen = [payload for payload in collector.payloads if payload.transaction["t_name"] == "/after"]
    assert len(seen) == 9
    assert all(payload.names == ["f"] for payload in seen)
    assert all(payload.application["instance_id"] == "i-1" for payload in seen)


def test_faults_leak_no_descriptors_and_no_memory(wire, collector, worker):
    worker.open("function f() {} f(); echo 'out';", {"kaq.method_threshold": 0})
    faults = [behaviours.closes_at_once, behaviours.resets, b"garbage", ANSWER, padded(20000),
              behaviours.answers_in_pieces(ANSWER), DISABLED, padded(4097)]

    def suffer(times):
        for _ in range(times):
            collector.replies.extend(faults)
            for _ in faults:
                assert worker.get() == b"out"

    suffer(4)
    files, memory = worker.server.open_files(), worker.server.resident_kib()
    suffer(25)
    assert worker.server.open_files() <= files + 1
    if not worker.server.keeps_freed_memory:
        assert worker.server.resident_kib() - memory < 1024


# Data port ---------------------------------------------------------------------------------------

@pytest.mark.parametrize("fault", [
    behaviours.closes_at_once, behaviours.resets_at_once, behaviours.answers(b"hello\n" * 100),
    behaviours.answers(b"")], ids=lambda fault: fault.__name__)
@pytest.mark.parametrize("name_length", [4, 200])
def test_data_connection_that_breaks_leaves_the_script_alone(wire, collector, fault, name_length):
    collector.data_behaviour = fault
    source = "function %s() {} for ($i = 0; $i < 9000; $i++) %s(); " % (("g" * name_length,) * 2)
    result = wire.same_as_bare(wire.cli, source=source + SCRIPT,
                               settings={"kaq.method_threshold": 0})
    collector.settle()
    assert collector.data_connections == 1 and result.seconds < 8


def test_collector_that_never_reads_the_data_holds_the_process_for_a_second_at_most(
        wire, collector):
    collector.data_behaviour = behaviours.never_answers
    name = "g" * 2000
    result = wire.cli("function %s() {} for ($i = 0; $i < 9999; $i++) %s(); echo 'out'; exit(3);"
                      % (name, name), settings={"kaq.method_threshold": 0})
    assert (result.stdout, result.status) == (b"out", 3)
    assert 0.9 < result.seconds < 8
    collector.settle()
    assert collector.data_connections == 1


def test_what_the_collector_says_on_the_data_port_is_ignored(wire, collector):
    wire.cli("echo 1;")
    collector.forget()
    collector.data_behaviour = behaviours.answers(json.dumps(DISABLED).encode())
    result = wire.same_as_bare(wire.cli, source=SCRIPT)
    assert result.status == 11


def test_no_connection_is_tried_twice(wire, collector):
    collector.reply = behaviours.resets
    collector.data_behaviour = behaviours.resets_at_once
    wire.cli("echo 1;")
    collector.settle()
    assert (collector.status_connections, collector.data_connections) == (1, 1)


def test_children_of_the_script_inherit_no_connection(wire, collector):
    out = wire.cli("echo shell_exec('ls -l /proc/self/fd | grep -c socket');").stdout
    assert out.strip() == b"0"
