"""Processes that this run starts and stops by their ids, and what the kernel tells of them."""
import os
import pathlib
import re
import signal
import socket
import subprocess
import time

import loopback

START_SECONDS = 30.0
STOP_SECONDS = 10.0
IDLE_SECONDS = 20.0


class Failure(Exception):
    """Something that the run cannot do without did not work."""


class Process:
    """`directory` holds what it writes. It is told to end when this process dies."""

    def __init__(self, command, directory, environment, stop_signal=signal.SIGTERM):
        self.name = os.path.basename(command[0])
        self._log = pathlib.Path(directory, self.name + ".log")
        self._stop_signal = stop_signal
        with open(self._log, "ab") as log:
            # A group of its own: Ctrl-C comes to this program alone, which then stops the others.
            self._child = subprocess.Popen(
                command, cwd=directory, env=environment, stdin=subprocess.DEVNULL, stdout=log,
                stderr=log, start_new_session=True,
                preexec_fn=loopback.ends_with_parent(stop_signal))

    @property
    def pid(self):
        return self._child.pid

    @property
    def log(self):
        return self._log.read_text(encoding="utf-8", errors="replace")

    def wait_for(self, address):
        """Until somebody listens at the address: a port, or the path of a socket."""
        family = socket.AF_INET if isinstance(address, int) else socket.AF_UNIX
        where = ("127.0.0.1", address) if isinstance(address, int) else str(address)
        deadline = time.monotonic() + START_SECONDS
        while time.monotonic() < deadline and self._child.poll() is None:
            with socket.socket(family) as probe:
                try:
                    probe.connect(where)
                    return
                except OSError:
                    time.sleep(0.02)
        raise Failure("%s did not start: %s" % (self.name, self.log[-2000:]))

    def children(self):
        """The ids of its child processes, oldest first."""
        path = "/proc/%d/task/%d/children" % (self.pid, self.pid)
        try:
            return [int(word) for word in pathlib.Path(path).read_text().split()]
        except OSError:
            return []

    def stop(self):
        if self._child.poll() is None:
            self._child.send_signal(self._stop_signal)
            try:
                self._child.wait(STOP_SECONDS)
            except subprocess.TimeoutExpired:
                self._end_by_force()
        self._child.wait(STOP_SECONDS)

    def _end_by_force(self):
        """Its group holds nothing but it and its children."""
        try:
            os.killpg(self.pid, signal.SIGKILL)
        except ProcessLookupError:
            self._child.kill()


# What a process waits in that waits for its next request: accept, accept4.
_ACCEPTS = ("43", "288")


def _is_idle(pid, accepts):
    """accepts: whether an idle process waits in accept; others only have to wait for something."""
    if accepts:
        try:
            with open("/proc/%d/syscall" % pid, encoding="ascii") as file:
                return file.read().split()[0] in _ACCEPTS
        except PermissionError:
            pass
    with open("/proc/%d/stat" % pid, encoding="ascii", errors="replace") as file:
        return file.read().rpartition(")")[2].split()[0] != "R"


def wait_until_idle(pid, accepts):
    """A script may have answered and go on; and until a process waits, the kernel has not counted
    its last turn. Gives up after some time, or when the process is gone."""
    deadline = time.monotonic() + IDLE_SECONDS
    try:
        while not _is_idle(pid, accepts) and time.monotonic() < deadline:
            time.sleep(0.0002)
    except OSError:
        pass


def cpu_seconds(pid):
    """The processor time that a process of one thread has used."""
    try:
        with open("/proc/%d/schedstat" % pid, encoding="ascii") as file:
            return int(file.read().split()[0]) / 1e9
    except OSError:
        with open("/proc/%d/stat" % pid, encoding="ascii") as file:
            fields = file.read().rpartition(")")[2].split()
        return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def peak_kib(pid):
    """The most memory that a process has had."""
    with open("/proc/%d/status" % pid, encoding="utf-8") as file:
        return int(re.search(r"VmHWM:\s+(\d+)", file.read()).group(1))
