"""Processes that crash, and the logs they leave in a directory that only they see as /opt."""
import copy
import os
import pathlib
import re
import shlex
import signal
import stat
import subprocess
import tempfile
import threading

import engines
import pytest

OUTPUT_LINE = b"Program start addres = 0\n"
DEADLINE = 60.0
LONGEST_LIFE = 60.0

# Durations that make usleep() a fault where faults.cpp is preloaded.
STORE_TO_NULL, STORE_TO_NO_ADDRESS, DIVIDE_BY_ZERO, RUN_NO_INSTRUCTION, ABORT, CALL_FORBIDDEN, \
    STORE_WITH_BROKEN_HEAP, PUT_DEFAULTS_IN_PLACE, STORE_IN_THREAD = range(900001, 900010)
HEAP_WAS_USED = 99

_RECORD = re.compile(
    rb"KAQ CRASH Signal (?P<signal>[0-9]+) received\n"
    rb"KAQ CRASH siginfo address=(?P<address>\(nil\)|0x[0-9a-f]+)\n"
    rb"KAQ CRASH siginfo code =(?P<code>-?[0-9]+)\n"
    rb"KAQ CRASH address = (?P<instruction>[0-9a-f]+)\n"
    rb"KAQ CRASH Backtrace messages size: (?P<size>[0-9]+)\n"
    rb"(?P<frames>(?:Trace [^\n]+\n)*)")
_FRAME = re.compile(r"(?P<module>[^\n]*)\((?:(?P<symbol>[^()+]*)[+-]0x[0-9a-f]+)?\) "
                    r"\[0x(?P<address>[0-9a-f]+)\]")


class Frame:
    def __init__(self, text):
        match = _FRAME.fullmatch(text)
        assert match, "no text of backtrace_symbols: %r" % text
        self.module = os.path.basename(match["module"])
        self.symbol = match["symbol"] or ""
        self.address = int(match["address"], 16)


class Crash:
    """One record of a log."""

    def __init__(self, match):
        self.signal, self.code = int(match["signal"]), int(match["code"])
        self.address = 0 if match["address"] == b"(nil)" else int(match["address"], 16)
        self.address_text = match["address"]
        self.instruction = int(match["instruction"], 16)
        lines = match["frames"].decode().splitlines()
        self.frames = [Frame(line.removeprefix("Trace ")) for line in lines]
        assert len(self.frames) == int(match["size"])


def parse(log):
    """The records of a log, which must hold nothing else."""
    crashes, at = [], 0
    while at < len(log):
        match = _RECORD.match(log, at)
        assert match, log[at:at + 500]
        crashes.append(Crash(match))
        at = match.end()
    return crashes


class Death:
    """How a process ended, by the raw status that its parent is told."""

    def __init__(self, pid, status, output, errors):
        self.pid, self.output, self.errors = pid, output, errors
        self.status = os.waitstatus_to_exitcode(status)
        self.dumped_core = os.WIFSIGNALED(status) and os.WCOREDUMP(status)

    @property
    def end(self):
        return self.status, self.dumped_core


class Running:
    """A started process whose output goes to files."""

    def __init__(self, command, env=None, cwd=None):
        self._output, self._errors = tempfile.TemporaryFile(), tempfile.TemporaryFile()
        self.process = subprocess.Popen(
            command, stdin=subprocess.DEVNULL, stdout=self._output, stderr=self._errors, cwd=cwd,
            env=engines.environment(env))
        self._limit = threading.Timer(LONGEST_LIFE, self.process.kill)
        self._limit.start()

    def death(self):
        pid, status = os.waitpid(self.process.pid, 0)
        self._limit.cancel()
        self.process.returncode = os.waitstatus_to_exitcode(status)
        return Death(pid, status, self._all_of(self._output), self._all_of(self._errors))

    @staticmethod
    def _all_of(file):
        with file:
            file.seek(0)
            return file.read()


class Room:
    """The engine's binaries, run so that they see `opt` as /opt. Everything else is as it is."""

    def __init__(self, wire, directory):
        if str(pathlib.Path(wire.engine.php).resolve()).startswith("/opt/"):
            pytest.skip("the engine itself lies below /opt")
        self.wire, self.directory = wire, directory
        self.opt = directory / "opt"
        self.logs_directory = self.opt / "kaq" / "logs" / "crash"
        self.logs_directory.mkdir(parents=True)
        self._real = wire.engine
        self.limits = "ulimit -c 0"
        self.enclose()

    def enclose(self, mounting="true", unshare=()):
        """From now on the binaries run enclosed; `mounting` is a shell command run before them."""
        self.wire.engine = copy.copy(self._real)
        identity = [] if os.geteuid() == 0 else ["--map-root-user"]
        for kind in ("php", "cgi", "fpm"):
            real = getattr(self._real, kind)
            if real:
                setattr(self.wire.engine, kind, str(self.directory / kind))
                self._write(self.directory / kind, [
                    "unshare", *identity, "--mount", *unshare, "--", "sh", "-c",
                    'mount --bind "$0" /opt && %s && %s && %s "$@"%s' % (
                        mounting, self.limits, "" if unshare else "exec",
                        "; exit $?" if unshare else ""), str(self.opt), real])

    @staticmethod
    def _write(path, command):
        path.write_text("#!/bin/sh\nexec %s \"$@\"\n" % shlex.join(command))
        path.chmod(path.stat().st_mode | stat.S_IXUSR)

    def start(self, source, settings=None, loaded=True, env=None):
        path = self.wire.script(source)
        return Running([self.wire.engine.php, *self.wire.options(settings, loaded), str(path)],
                       env, self.directory)

    def run(self, source, settings=None, loaded=True, env=None):
        return self.start(source, settings, loaded, env).death()

    @property
    def log_paths(self):
        return sorted(path for path in self.opt.rglob("*") if not path.is_dir())

    def log_of(self, pid):
        return self.logs_directory / ("kaqcrash-%d.log" % pid)

    def crash_of(self, pid):
        """The only record of the only log, which is that process's."""
        assert self.log_paths == [self.log_of(pid)]
        crash, = parse(self.log_of(pid).read_bytes())
        return crash


def may_enclose():
    """Whether this user may give a process its own view of the file system."""
    identity = [] if os.geteuid() == 0 else ["--map-root-user"]
    try:
        tried = subprocess.run(
            ["unshare", *identity, "--mount", "--pid", "--fork", "--", "mount", "--bind", "/tmp",
             "/opt"], stdin=subprocess.DEVNULL, capture_output=True, timeout=DEADLINE)
    except OSError:
        return False
    return tried.returncode == 0


def signal_name(number):
    return signal.Signals(number).name
