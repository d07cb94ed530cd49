#!/usr/bin/env python3
"""supervise.py SECONDS COMMAND...: runs a command and ends all that it started.

Whatever the command leaves behind ends with it, including daemons and processes in other sessions.
If it takes longer than SECONDS, or this program gets a signal to end (or its parent dies), all of
them are ended at once: by SIGTERM, and by SIGKILL after KAQ_GRACE more seconds (default: 20). The
status is the command's, 124 if it took too long, or 128 and the number of the signal that ended
the command or this program."""

import ctypes
import os
import signal
import subprocess
import sys
import time

PR_SET_PDEATHSIG, PR_SET_CHILD_SUBREAPER = 1, 36
GRACE = 20.0
OUT_OF_TIME = 124
ENDING = (signal.SIGINT, signal.SIGTERM, signal.SIGHUP)


def descendants():
    """The process ids of all living descendants. Orphans are ours: we adopt them."""
    children = {}
    for entry in filter(str.isdigit, os.listdir("/proc")):
        try:
            with open("/proc/%s/stat" % entry, encoding="utf-8", errors="replace") as stat:
                # The name before these fields may hold anything, brackets and blanks included.
                state, parent = stat.read().rpartition(")")[2].split()[:2]
        except OSError:
            continue
        if state not in "ZX":
            children.setdefault(int(parent), []).append(int(entry))
    found = []
    generation = [os.getpid()]
    while generation:
        generation = [child for parent in generation for child in children.get(parent, [])]
        found += generation
    return found


def reap():
    """Reaps the children that have ended: {process id: exit status as subprocess has it}."""
    ended = {}
    try:
        while True:
            pid, status = os.waitpid(-1, os.WNOHANG)
            if pid == 0:
                return ended
            ended[pid] = os.waitstatus_to_exitcode(status)
    except ChildProcessError:
        return ended


def end_descendants(grace):
    """Ends all descendants; returns when none is left."""
    told = set()
    deadline = time.monotonic() + grace
    while True:
        reap()
        alive = descendants()
        if not alive:
            return
        late = time.monotonic() > deadline
        for pid in alive:
            if late or pid not in told:
                told.add(pid)
                try:
                    os.kill(pid, signal.SIGKILL if late else signal.SIGTERM)
                except ProcessLookupError:
                    pass
        time.sleep(0.05)


def start(command, mask):
    def as_we_were_started():
        for number in ENDING:
            signal.signal(number, signal.SIG_DFL)
        signal.pthread_sigmask(signal.SIG_SETMASK, mask)

    # In a session of its own, so that Ctrl-C in the terminal reaches only us; we pass it on.
    return subprocess.Popen(command, stdin=subprocess.DEVNULL, start_new_session=True,
                            preexec_fn=as_we_were_started)


def run(command, limit, mask):
    """Returns the command's status as a shell reports it. REQUIRES: the signals awaited here are
    blocked."""
    deadline = time.monotonic() + limit
    process = start(command, mask)
    while True:
        told = signal.sigtimedwait({*ENDING, signal.SIGCHLD}, max(0, deadline - time.monotonic()))
        process.returncode = reap().get(process.pid)
        if process.returncode is not None:
            return process.returncode if process.returncode >= 0 else 128 - process.returncode
        if told is None:
            return OUT_OF_TIME
        if told.si_signo in ENDING:
            return 128 + told.si_signo


def main(arguments):
    if len(arguments) < 2:
        print(__doc__, file=sys.stderr)
        return 2
    parent = os.getppid()
    mask = signal.pthread_sigmask(signal.SIG_BLOCK, {*ENDING, signal.SIGCHLD})
    libc = ctypes.CDLL(None)
    libc.prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0)
    libc.prctl(PR_SET_PDEATHSIG, int(signal.SIGTERM), 0, 0, 0)
    if os.getppid() != parent:
        return 128 + signal.SIGTERM
    try:
        return run(arguments[1:], float(arguments[0]), mask)
    finally:
        end_descendants(float(os.environ.get("KAQ_GRACE", GRACE)))


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
