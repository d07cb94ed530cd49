"""The log of a crash, and that the process dies as it would have died without us."""
import os
import platform
import resource
import signal
import time

import crash_runs
import fastcgi
import preloads
import pytest
from crash_runs import OUTPUT_LINE

SENT_SIGNALS = [signal.SIGFPE, signal.SIGSEGV, signal.SIGILL, signal.SIGABRT, signal.SIGSYS]
IN_PLACE = 30.0

# Name: (duration that asks for it, signal, si_code).
FAULTS = {
    "store to null": (crash_runs.STORE_TO_NULL, signal.SIGSEGV, 1),
    "store to no address": (crash_runs.STORE_TO_NO_ADDRESS, signal.SIGSEGV, 128),
    "division by zero": (crash_runs.DIVIDE_BY_ZERO, signal.SIGFPE, 1),
    "no instruction": (crash_runs.RUN_NO_INSTRUCTION, signal.SIGILL, 2),
    "abort": (crash_runs.ABORT, signal.SIGABRT, -6),
    "forbidden system call": (crash_runs.CALL_FORBIDDEN, signal.SIGSYS, 1),
    "store in another thread": (crash_runs.STORE_IN_THREAD, signal.SIGSEGV, 1),
}

RECURSION = "function f() { array_map('f', [1]); } "
# For engines that bound it; others do not know the setting.
UNBOUNDED_STACK = {"zend.max_allowed_stack_size": -1}


@pytest.fixture(scope="module")
def enclosure():
    if not crash_runs.may_enclose():
        pytest.skip("this user may not give a process its own /opt")


@pytest.fixture
def room(enclosure, wire, tmp_path):
    return crash_runs.Room(wire, tmp_path)


@pytest.fixture(scope="module")
def faults(engine, tmp_path_factory):
    """The environment in which usleep() is a fault."""
    if platform.machine() != "x86_64":
        pytest.skip("the faults are those of x86-64")
    return preloads.built(engine, "faults.cpp", tmp_path_factory.mktemp("faults"))


def fault(name):
    return "usleep(%d);" % FAULTS[name][0]


def wait_for(condition):
    deadline = time.monotonic() + IN_PLACE
    while not condition():
        assert time.monotonic() < deadline
        time.sleep(0.005)


def sleeping(room, loaded=True, source=""):
    """A process whose script has come to its last call."""
    mark = room.directory / "asleep"
    mark.unlink(missing_ok=True)
    running = room.start("%s touch('%s'); while (true) sleep(60);" % (source, mark), loaded=loaded)
    wait_for(mark.exists)
    return running


# The log ------------------------------------------------------------------------------------------

def test_debug_crash_logs_a_segmentation_fault_at_address_zero(room):
    death = room.run("kaq_debug_crash();")
    assert death.status == -signal.SIGSEGV
    crash = room.crash_of(death.pid)
    assert (crash.signal, crash.code, crash.address_text) == (11, 1, b"(nil)")
    assert 0 < len(crash.frames) <= 25


@pytest.mark.parametrize("name", list(FAULTS))
def test_fault_is_logged_and_ends_the_process_as_it_does_without_us(room, faults, name):
    _, number, code = FAULTS[name]
    bare = room.run(fault(name), loaded=False, env=faults)
    death = room.run(fault(name), env=faults)
    assert (death.end, death.errors) == (bare.end, bare.errors)
    assert death.status == -number
    crash = room.crash_of(death.pid)
    assert (crash.signal, crash.code) == (number, code)


@pytest.mark.parametrize("name", ["division by zero", "no instruction"])
def test_address_is_the_low_half_of_the_interrupted_instruction(room, faults, name):
    crash = room.crash_of(room.run(fault(name), env=faults).pid)
    assert crash.address >> 32, "the address itself is told in full"
    assert crash.instruction == crash.address & 0xffffffff


def test_instruction_is_told_in_hexadecimal_without_a_prefix(room):
    death = room.run("kaq_debug_crash();")
    crash = room.crash_of(death.pid)
    line = room.log_of(death.pid).read_bytes().split(b"\n")[3]
    assert line == b"KAQ CRASH address = %x" % crash.instruction


def test_frames_are_innermost_first_and_begin_with_the_handlers_own(room):
    crash = room.crash_of(room.run("kaq_debug_crash();").pid)
    halves = [frame.address & 0xffffffff for frame in crash.frames]
    assert crash.frames[0].module == "kaq.so"
    assert crash.instruction in halves[1:]
    at = halves.index(crash.instruction)
    assert crash.frames[at].module == "kaq.so", "the function that a script crashes with is ours"
    assert crash.frames[at + 1].module.startswith("php")


def test_frames_name_the_symbol_where_there_is_one(room, faults):
    crash = room.crash_of(room.run(fault("abort"), env=faults).pid)
    assert ("libc.so.6", "abort") in [(frame.module, frame.symbol) for frame in crash.frames]


def test_frames_end_at_twenty_five(room):
    source = "function f($n) { if ($n == 0) kaq_debug_crash(); array_map('f', [$n - 1]); } f(100);"
    assert len(room.crash_of(room.run(source).pid).frames) == 25


def test_few_frames_are_all_there(room):
    crash = room.crash_of(room.run("kaq_debug_crash();").pid)
    assert len(crash.frames) < 25
    assert "libc.so.6" in [frame.module for frame in crash.frames[-3:]]


def test_misspelt_line_goes_to_standard_output_and_not_into_the_log_is_meant(room):
    death = room.run("echo 'before'; kaq_debug_crash();")
    assert death.output == b"before" + OUTPUT_LINE
    assert b"addres =" not in room.log_of(death.pid).read_bytes()


def test_log_is_readable_as_a_file_that_any_program_makes(room):
    death = room.run("umask(0027); kaq_debug_crash();")
    assert room.log_of(death.pid).stat().st_mode & 0o777 == 0o640


def test_handler_takes_no_memory_from_a_broken_heap(room, faults):
    source = "usleep(%d);" % crash_runs.STORE_WITH_BROKEN_HEAP
    death = room.run(source, env=faults)
    assert death.status != crash_runs.HEAP_WAS_USED
    assert death.status == -signal.SIGSEGV
    assert room.crash_of(death.pid).frames


# Signals that somebody sends ----------------------------------------------------------------------

@pytest.mark.parametrize("number", SENT_SIGNALS, ids=crash_runs.signal_name)
def test_sent_signal_is_logged_and_ends_the_process(room, number):
    running = sleeping(room)
    os.kill(running.process.pid, number)
    death = running.death()
    assert death.end == (-number, False)
    crash = room.crash_of(death.pid)
    assert (crash.signal, crash.code) == (number, 0)


@pytest.mark.parametrize("number", [
    signal.SIGBUS, signal.SIGTERM, signal.SIGKILL, signal.SIGQUIT, signal.SIGHUP, signal.SIGINT,
    signal.SIGTRAP, signal.SIGXCPU], ids=crash_runs.signal_name)
def test_other_signals_are_left_alone(room, number):
    ends = []
    for loaded in (False, True):
        running = sleeping(room, loaded)
        os.kill(running.process.pid, number)
        death = running.death()
        ends.append((death.end, death.output, death.errors))
    assert ends[0] == ends[1]
    assert ends[1][0] == (-number, False)
    assert not room.log_paths


def test_five_signals_more_are_caught_than_by_the_engine(room):
    source = "preg_match('/SigCgt:\\s*(\\S+)/', file_get_contents('/proc/self/status'), $m);" \
             "echo $m[1];"
    bare, loaded = (int(room.run(source, loaded=loaded).output, 16) for loaded in (False, True))
    # Bit n - 1 is signal n.
    assert loaded & ~bare == sum(1 << (number - 1) for number in SENT_SIGNALS) & ~bare
    assert loaded & bare == bare


# Where no log can be written ----------------------------------------------------------------------

def assert_dies_without_a_word(room, faults):
    for name, (_, number, _) in FAULTS.items():
        bare = room.run(fault(name), loaded=False, env=faults)
        death = room.run(fault(name), env=faults)
        assert (death.end, death.output, death.errors) == (bare.end, bare.output, bare.errors), name
        assert death.status == -number and death.output == b"", name


def test_missing_directory_is_not_made(room, faults):
    room.logs_directory.rmdir()
    assert_dies_without_a_word(room, faults)
    assert list(room.opt.rglob("*")) == [room.opt / "kaq", room.opt / "kaq" / "logs"]


def test_read_only_directory(room, faults):
    room.enclose('mount -o bind,remount,ro /opt')
    assert_dies_without_a_word(room, faults)
    assert not room.log_paths


def test_directory_of_the_logs_name(room, faults):
    room.enclose('mkdir -p /opt/kaq/logs/crash/kaqcrash-$$.log')
    assert_dies_without_a_word(room, faults)
    assert not room.log_paths


THEIRS = b"not ours\n"


@pytest.mark.parametrize("linking", ["ln -s", "ln"])
def test_link_of_the_logs_name_leads_to_no_log_in_the_other_file(room, faults, linking):
    theirs = room.opt / "theirs"
    theirs.write_bytes(THEIRS)
    room.enclose(linking + ' /opt/theirs /opt/kaq/logs/crash/kaqcrash-$$.log')
    assert_dies_without_a_word(room, faults)
    assert theirs.read_bytes() == THEIRS


def test_symbolic_link_to_nothing_makes_no_file(room):
    room.enclose('ln -s /opt/theirs /opt/kaq/logs/crash/kaqcrash-$$.log')
    death = room.run("kaq_debug_crash();")
    assert (death.status, death.output) == (-signal.SIGSEGV, b"")
    assert not (room.opt / "theirs").exists()


def test_pipe_of_the_logs_name_does_not_keep_the_process_from_dying(room, faults):
    room.enclose('mkfifo /opt/kaq/logs/crash/kaqcrash-$$.log')
    assert_dies_without_a_word(room, faults)


def test_full_disk(room, faults):
    room.enclose('mount -t tmpfs -o size=4k tmpfs /opt/kaq/logs/crash && '
                 '{ head -c 4096 /dev/zero >/opt/kaq/logs/crash/full; true; }')
    death = room.run(fault("abort"), env=faults)
    assert death.end == (-signal.SIGABRT, False)


# One file per process id --------------------------------------------------------------------------

def test_two_processes_of_one_id_append_to_one_log(room):
    room.enclose(unshare=["--pid", "--fork"])
    for source in ("kaq_debug_crash();", "posix_kill(getmypid(), 6);"
                   if b"posix" in room.wire.php("-m", loaded=False).stdout
                   else "kaq_debug_crash();"):
        assert room.run(source).status in (128 + 11, 128 + 6)
    log, = room.log_paths
    crashes = crash_runs.parse(log.read_bytes())
    assert len(crashes) == 2
    assert crashes[0].signal == signal.SIGSEGV


def test_what_a_log_holds_already_stays(room):
    room.enclose("echo earlier >/opt/kaq/logs/crash/kaqcrash-$$.log")
    death = room.run("kaq_debug_crash();")
    first, rest = room.log_of(death.pid).read_bytes().split(b"\n", 1)
    assert first == b"earlier" and len(crash_runs.parse(rest)) == 1


def test_child_of_a_script_has_its_own_log(room):
    if b"pcntl" not in room.wire.php("-m", loaded=False).stdout:
        pytest.skip("this engine has no pcntl")
    death = room.run("if (($pid = pcntl_fork()) == 0) kaq_debug_crash();"
                     "pcntl_waitpid($pid, $status); echo $pid, ' ', pcntl_wtermsig($status);")
    pid, number = death.output.removeprefix(OUTPUT_LINE).split()
    assert (death.status, int(number)) == (0, signal.SIGSEGV)
    assert room.crash_of(int(pid)).signal == signal.SIGSEGV


# Dying as without us ------------------------------------------------------------------------------

def cores_land_in_the_directory():
    with open("/proc/sys/kernel/core_pattern", encoding="utf-8") as pattern:
        text = pattern.read().strip()
    return "/" not in text and not text.startswith("|")


@pytest.fixture
def core_room(room):
    if resource.getrlimit(resource.RLIMIT_CORE)[1] != resource.RLIM_INFINITY:
        pytest.skip("this user may dump no core")
    room.limits = "ulimit -c unlimited"
    room.enclose()
    return room


def ends_without_and_with_us(room, death):
    """How death(loaded) ends; its core is removed."""
    ends = []
    for loaded in (False, True):
        ends.append(death(loaded).end)
        for core in room.directory.glob("core*"):
            core.unlink()
    return ends


@pytest.mark.parametrize("name", list(FAULTS))
def test_core_is_dumped_as_without_us(core_room, faults, name):
    ends = ends_without_and_with_us(
        core_room, lambda loaded: core_room.run(fault(name), loaded=loaded, env=faults))
    assert ends[0] == ends[1]
    if cores_land_in_the_directory():
        assert ends[1][1], "a core was to be had"


def test_sent_signal_dumps_a_core_as_without_us(core_room):
    def death(loaded):
        running = sleeping(core_room, loaded)
        os.kill(running.process.pid, signal.SIGABRT)
        return running.death()

    ends = ends_without_and_with_us(core_room, death)
    assert ends[0] == ends[1]


def test_nothing_of_the_request_is_resumed(room, collector):
    death = room.run("register_shutdown_function(function () { echo 'late'; });"
                     "try { kaq_debug_crash(); } finally { echo 'on'; }")
    assert death.output == OUTPUT_LINE
    collector.settle()
    assert collector.events == ["status"], "no payload, no notice"


def test_stack_overflow_leaves_its_log(room):
    source = "ini_set('memory_limit', -1); " + RECURSION + "f();"
    bare, death = (room.run(source, UNBOUNDED_STACK, loaded=loaded) for loaded in (False, True))
    assert death.end == bare.end == (-signal.SIGSEGV, False)
    crash = room.crash_of(death.pid)
    assert crash.signal == signal.SIGSEGV and len(crash.frames) == 25


def test_stack_overflow_that_the_engine_sees_coming_is_an_error(room, engine, collector):
    if not engine.stack_overflow_is_an_error:
        pytest.skip("this engine does not watch its stack")
    if engine.observes_calls:
        pytest.skip("calls are not on the stack")
    source = ("ini_set('memory_limit', -1); function g() { g(); } "
              "try { g(); } catch (Error $e) { echo substr($e->getMessage(), 0, 23); }")
    death = room.run(source)
    assert (death.status, death.output) == (0, b"Maximum call stack size"), death
    assert sum(span.get("if", 0) for span in collector.payload.spans) == 1


def test_stack_overflow_of_a_fiber_leaves_its_log(room, engine):
    if engine.stack_overflow_is_an_error:
        pytest.skip("this engine watches the stacks of fibers whatever is set")
    source = ("ini_set('memory_limit', -1); " + RECURSION +
              "if (!class_exists('Fiber')) exit(7); (new Fiber('f'))->start();")
    death = room.run(source)
    if death.status == 7:
        pytest.skip("this engine has no fibers")
    assert death.status == -signal.SIGSEGV
    assert len(room.crash_of(death.pid).frames) == 25


def test_collector_that_does_not_run_changes_nothing(room):
    death = room.run("kaq_debug_crash();", {"kaq.status_port": 1, "kaq.data_port": 1})
    assert death.status == -signal.SIGSEGV
    assert room.crash_of(death.pid).signal == signal.SIGSEGV


def test_unmonitored_request_is_logged_too(room):
    death = room.run("kaq_debug_crash();", {"kaq.capture_clirequest": 0})
    assert room.crash_of(death.pid).signal == signal.SIGSEGV


# When the handler is in place ---------------------------------------------------------------------

def test_handler_is_in_place_before_the_first_request(room):
    server = room.wire.builtin_server("echo 1;")
    os.kill(server.process.pid, signal.SIGSEGV)
    assert server.process.wait(IN_PLACE) == -signal.SIGSEGV
    assert room.crash_of(server.process.pid).signal == signal.SIGSEGV


def replacing_server(room, faults):
    return room.wire.builtin_server("""
        if ($_SERVER['REQUEST_URI'] == '/replace') { usleep(%d); echo 'replaced'; }
        if ($_SERVER['REQUEST_URI'] == '/replace-and-crash') {
            usleep(%d); usleep(%d);
        }
    """ % (crash_runs.PUT_DEFAULTS_IN_PLACE, crash_runs.PUT_DEFAULTS_IN_PLACE,
           crash_runs.STORE_TO_NULL))


@pytest.mark.parametrize("number", SENT_SIGNALS, ids=crash_runs.signal_name)
def test_next_request_puts_a_replaced_handler_back(room, faults, monkeypatch, number):
    monkeypatch.setenv("LD_PRELOAD", faults["LD_PRELOAD"])
    server = replacing_server(room, faults)
    assert server.request("/replace").body == b"replaced"
    assert server.request("/any").status == 200
    os.kill(server.process.pid, number)
    assert server.process.wait(IN_PLACE) == -number
    assert room.crash_of(server.process.pid).signal == number


def test_replaced_handler_stays_replaced_within_the_request(room, faults, monkeypatch):
    monkeypatch.setenv("LD_PRELOAD", faults["LD_PRELOAD"])
    server = replacing_server(room, faults)
    with pytest.raises(ConnectionError):
        server.request("/replace-and-crash")
    assert server.process.wait(IN_PLACE) == -signal.SIGSEGV
    assert not room.log_paths


def test_next_request_puts_the_handler_back_after_pcntl_signal(room):
    if b"pcntl" not in room.wire.php("-m", loaded=False).stdout:
        pytest.skip("this engine has no pcntl")
    server = room.wire.builtin_server("""
        if ($_SERVER['REQUEST_URI'] == '/crash') { kaq_debug_crash(); }
        pcntl_signal(SIGSEGV, SIG_IGN);
        preg_match('/SigIgn:\\s*(\\S+)/', file_get_contents('/proc/self/status'), $ignored);
        echo $ignored[1];
    """)
    assert int(server.request("/").body, 16) & (1 << (signal.SIGSEGV - 1))
    with pytest.raises(ConnectionError):
        server.request("/crash")
    assert server.process.wait(IN_PLACE) == -signal.SIGSEGV
    assert room.crash_of(server.process.pid).signal == signal.SIGSEGV


# Web servers --------------------------------------------------------------------------------------

def test_cgi_process(room):
    result = room.wire.cgi("kaq_debug_crash();")
    assert result.status == -signal.SIGSEGV
    log, = room.log_paths
    assert len(crash_runs.parse(log.read_bytes())) == 1


def test_fpm_replaces_the_worker_and_each_has_its_own_log(room):
    server = room.wire.fpm()
    page = room.wire.script("if ($_GET) kaq_debug_crash(); echo getmypid();", "page.php")
    workers = []
    for _ in range(2):
        workers.append(int(server.request(page).body))
        with pytest.raises(ConnectionError):
            fastcgi_request(server, page)
        wait_for(lambda: str(workers[-1]) in server.log and "exited on signal 11" in server.log)
    assert int(server.request(page).body) not in workers
    assert room.log_paths == sorted(room.log_of(worker) for worker in workers)
    for worker in workers:
        assert len(crash_runs.parse(room.log_of(worker).read_bytes())) == 1


def fastcgi_request(server, page):
    return fastcgi.request(server.socket, {
        "REQUEST_METHOD": "GET", "SCRIPT_FILENAME": str(page), "SCRIPT_NAME": "/page.php",
        "REQUEST_URI": "/?crash", "QUERY_STRING": "crash=1", "REDIRECT_STATUS": "200"}, b"")
