"""What is left in the process once the extension is unloaded: nothing that leads into it."""
import signal

import preloads
import pytest

HOOKS = ("track_zend_execute", "track_exceptions", "track_errors")
CLEAN = (0, b"done", b"", "looked\n")


@pytest.fixture(scope="module")
def late_look(engine, tmp_path_factory):
    return preloads.built(engine, "late_look.cpp", tmp_path_factory.mktemp("late_look"))


@pytest.fixture
def look(wire, late_look, tmp_path):
    def run(source="echo 'done';", number=0, **how):
        report = tmp_path / "report"
        done = wire.cli(source, env={**late_look, "LATE_LOOK": str(report),
                                     "LATE_SIGNAL": str(int(number))}, **how)
        return done.status, done.stdout, done.stderr, report.read_text()
    return run


def test_no_hook_and_no_signal_leads_into_the_unloaded_module(look, collector):
    assert look() == CLEAN
    assert collector.payload


@pytest.mark.parametrize("given", ["", "1", "0"])
@pytest.mark.parametrize("set_to", ["0", "1", ""])
def test_hooks_go_however_a_script_has_changed_their_settings(look, given, set_to):
    changes = "".join("ini_set('kaq.%s', '%s'); " % (name, set_to) for name in HOOKS)
    settings = {"kaq." + name: given for name in HOOKS}
    assert look(changes + "echo 'done';", settings=settings) == CLEAN


@pytest.mark.parametrize("number", [signal.SIGFPE, signal.SIGSEGV, signal.SIGILL, signal.SIGABRT,
                                    signal.SIGSYS, signal.SIGTERM])
def test_process_that_a_signal_ends_later_ends_as_without_us(look, number):
    bare = look(number=number, loaded=False)
    assert bare == (-number, *CLEAN[1:])
    assert look(number=number) == bare
