#!/usr/bin/env python3
"""Plays the demonstration: agent, demo application, some requests and a job, each with its
waterfall. script/demo builds the extension and calls this."""

import argparse
import os
import shlex
import signal
import socket
import subprocess
import sys
import tempfile
import time
import urllib.error
import urllib.request

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, HERE)

import agent as demo_agent  # noqa: E402
import waterfall  # noqa: E402

PAGES = (
    ("/", 200),
    ("/shop/cart?item=3", 200),
    ("/report", 200),
    ("/error", 500),
)
APPLICATION = "Demo shop"
JOB_ARGUMENTS = ["nightly", "--orders=2"]
SERVER_SECONDS = 15
REQUEST_SECONDS = 30
ARRIVAL_SECONDS = 10
STOP_SECONDS = 5


class DemoFailed(Exception):
    """The demonstration cannot go on; the text tells the person why."""


def start_agent(free_ports):
    """The agent on its usual ports, or on free ones when they are taken or `free_ports` is set."""
    if free_ports:
        return demo_agent.Agent(0, 0).start()
    try:
        return demo_agent.Agent().start()
    except demo_agent.PortTaken:
        agent = demo_agent.Agent(0, 0).start()
        print("The ports %d and %d are not both free; this demo uses %d and %d instead."
              % (demo_agent.STATUS_PORT, demo_agent.DATA_PORT, agent.status_port,
                 agent.data_port))
        return agent


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


# Questions to the engine itself, which no agent need hear of.
UNHEARD = ["-d", "kaq.status_port=0", "-d", "kaq.data_port=0"]


def php_command(options, agent):
    """The engine with the extension. An engine that already loads kaq by its php.ini is run
    without that file, so that it is this build that is shown."""
    question = "echo (int) extension_loaded('kaq');"
    probe = subprocess.run([options.php] + UNHEARD + ["-r", question],
                           stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                           stderr=subprocess.DEVNULL, timeout=30)
    command = [options.php]
    if probe.stdout.strip().endswith(b"1"):
        command.append("-n")
        print("The engine's php.ini loads kaq already; the demo runs the engine without it.")
    settings = {
        "extension": options.extension,
        "kaq.status_port": agent.status_port,
        "kaq.data_port": agent.data_port,
        "kaq.application_name": APPLICATION,
    }
    for name, value in settings.items():
        command += ["-d", "%s=%s" % (name, value)]
    return command


def check_loads(command):
    shown = subprocess.run(command + UNHEARD + ["-m"], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                           stderr=subprocess.STDOUT, timeout=30)
    if b"kaq" not in shown.stdout.split():
        complaint = shown.stdout.split(b"[PHP Modules]")[0].decode("utf-8", "replace").strip()
        raise DemoFailed("The engine does not load the extension. It says:\n%s"
                         % (complaint[:800] or "(nothing)"))


def start_server(command, port, log):
    """PHP's built-in web server, answering; its own output goes to the open file `log`."""
    arguments = ["-S", "127.0.0.1:%d" % port, "-t", os.path.join(HERE, "app"),
                 os.path.join(HERE, "app", "index.php")]
    server = subprocess.Popen(command + arguments, stdin=subprocess.DEVNULL, stdout=log,
                              stderr=log)
    deadline = time.monotonic() + SERVER_SECONDS
    while time.monotonic() < deadline:
        if server.poll() is not None:
            break
        try:
            socket.create_connection(("127.0.0.1", port), timeout=1).close()
            return server
        except OSError:
            time.sleep(0.05)
    stop_server(server)
    log.seek(0)
    raise DemoFailed("The demo application's web server does not start. It says:\n"
                     + log.read().decode("utf-8", "replace")[:800])


def stop_server(server):
    if server is None or server.poll() is not None:
        return
    server.terminate()
    try:
        server.wait(STOP_SECONDS)
    except subprocess.TimeoutExpired:
        server.kill()
        server.wait()


def visit(url, wanted):
    opener = urllib.request.build_opener(urllib.request.ProxyHandler({}))
    try:
        status = opener.open(url, timeout=REQUEST_SECONDS).status
    except urllib.error.HTTPError as answer:
        status = answer.code
    except OSError as problem:
        raise DemoFailed("%s cannot be fetched: %s" % (url, problem)) from None
    if status != wanted:
        raise DemoFailed("%s answered with status %d instead of %d" % (url, status, wanted))


def run_job(command):
    """The job's own output."""
    job = subprocess.run(command + ["job.php"] + JOB_ARGUMENTS, cwd=os.path.join(HERE, "app"),
                         stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                         stderr=subprocess.STDOUT, timeout=REQUEST_SECONDS)
    said = job.stdout.decode("utf-8", "replace").strip()
    if job.returncode != 0:
        raise DemoFailed("The job ended with status %d. It says:\n%s" % (job.returncode, said))
    return said


def show_arrival(agent, what, look, seconds=ARRIVAL_SECONDS):
    """Draws the transaction that `what` causes. The usual ports may hear other applications of
    this machine too: those are passed over, and anything else is told only when nothing comes."""
    deadline = time.monotonic() + seconds
    heard = []
    while True:
        event = agent.next_event(deadline - time.monotonic())
        if event is None:
            raise DemoFailed("No transaction arrived for %s within %g seconds. %s" % (
                what, seconds, "\n".join(heard) or "The agent was not even asked."))
        kind, value = event
        if kind == "transaction" and application_of(value) == APPLICATION:
            for line in demo_agent.describe(event, *look):
                print(line)
            return
        if kind == "handshake":
            heard.append("The agent was asked and said yes.")
        elif kind != "transaction":
            heard.append("The agent received: %s" % value)


def application_of(document):
    apm = waterfall.record(document.get("apm"))
    return waterfall.record(apm.get("application_info")).get("application_name")


def prompt(text, look):
    print(waterfall.paint("$ ", "dim", look[1]) + text, flush=True)


def play(options, agent, log, look):
    command = php_command(options, agent)
    check_loads(command)
    port = free_port()
    server = start_server(command, port, log)
    try:
        for page, wanted in PAGES:
            url = "http://127.0.0.1:%d%s" % (port, page)
            prompt("curl " + shlex.quote(url), look)
            visit(url, wanted)
            show_arrival(agent, page, look)
    finally:
        stop_server(server)
    prompt("php job.php " + " ".join(JOB_ARGUMENTS), look)
    print(run_job(command))
    show_arrival(agent, "the job", look)
    print("%d requests and a command-line job: each arrived as one transaction." % len(PAGES))


def interrupted(_signal, _frame):
    raise KeyboardInterrupt


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--php", required=True, metavar="FILE", help="command-line engine")
    parser.add_argument("--extension", required=True, metavar="FILE", help="the built kaq.so")
    parser.add_argument("--free-ports", action="store_true",
                        help="use any two free ports for the agent, not the usual ones")
    options = parser.parse_args()
    sys.stdout.reconfigure(errors="replace")
    signal.signal(signal.SIGTERM, interrupted)
    agent = None
    try:
        with tempfile.TemporaryDirectory(prefix="kaq-demo-") as scratch:
            os.environ["TMPDIR"] = scratch
            with open(os.path.join(scratch, "server.log"), "w+b") as log:
                agent = start_agent(options.free_ports)
                play(options, agent, log, demo_agent.terminal_look(sys.stdout))
        return 0
    except (DemoFailed, subprocess.TimeoutExpired) as problem:
        print("demo: %s" % problem, file=sys.stderr)
        return 1
    except KeyboardInterrupt:
        return 130
    finally:
        if agent is not None:
            agent.stop()


if __name__ == "__main__":
    sys.exit(main())
