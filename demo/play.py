#!/usr/bin/env python3
"""Plays the demonstration: collector, demo application, some requests and a job, each with its
waterfall, and one request through three services. script/demo builds the extension and the collector
and calls this."""

import argparse
import json
import os
import re
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

PAGES = (
    ("/", 200),
    ("/shop/cart?item=3", 200),
    ("/report", 200),
    ("/error", 500),
)
TRACED_PAGE = ("/order?item=3", 200)
APPLICATION = "Demo shop"
# The services that the traced page asks: their script, by the name of the application. Each asks
# only those before it.
SERVICES = {"Demo stock": "stock", "Demo prices": "prices"}
# The shop's own, and those that it and its services cause.
TRACED_REQUESTS = 6
# Callers know each other by the key that their extensions are configured with.
ACCOUNT_KEY = "demo-account-1"
JOB_ARGUMENTS = ["nightly", "--orders=2"]
PROBE_SECONDS = 30
SERVER_SECONDS = 15
REQUEST_SECONDS = 30
ARRIVAL_SECONDS = 10
COLLECTOR_SECONDS = 15
STOP_SECONDS = 5
# A free port may be somebody else's by the time that a server listens on it.
START_ATTEMPTS = 3


class DemoFailed(Exception):
    """The demonstration cannot go on; the text tells the person why."""


class Interrupts:
    """SIGTERM and SIGINT end the demonstration by a KeyboardInterrupt, but not while a process is
    being started: nobody would know it yet, and nobody would end it. Nor while all are ended."""
    held = False
    pending = False

    @classmethod
    def arrived(cls, _signal, _frame):
        if not cls.held:
            raise KeyboardInterrupt
        cls.pending = True


# Every process that was started, to be stopped at the end whatever happened meanwhile.
STARTED = []


def start_process(command, **how):
    Interrupts.held = True
    try:
        process = subprocess.Popen(command, stdin=subprocess.DEVNULL, **how)
        STARTED.append(process)
    finally:
        Interrupts.held = False
    if Interrupts.pending:
        raise KeyboardInterrupt
    return process


def run(command, seconds, **how):
    """Runs the command to its end, as (exit status, what it wrote to standard output)."""
    process = start_process(command, stdout=subprocess.PIPE, **how)
    output = process.communicate(timeout=seconds)[0]
    return process.returncode, output


class Collector:
    """A running collector with a store of its own."""
    PORTS = re.compile(r"handshakes (\d+), payloads (\d+), http (\d+); store ")

    def __init__(self, program, store, ports):
        self.program, self.store = program, store
        command = [program, "collect", "--store", store, "--config", os.devnull]
        for name, port in ports.items():
            command += ["--" + name, str(port)]
        self.process = start_process(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                     text=True)
        found = self.PORTS.search(self.process.stdout.readline())
        if not found:
            raise DemoFailed("The collector does not start. It says:\n%s"
                             % self.process.communicate(timeout=COLLECTOR_SECONDS)[1].strip())
        self.status_port, self.data_port, self.http_port = map(int, found.groups())

    def ask(self, *arguments):
        """What a verb prints as JSON; None if there is nothing to print."""
        status, output = run([self.program, *arguments, "--json", "--store", self.store],
                             REQUEST_SECONDS, stderr=subprocess.DEVNULL)
        return json.loads(output) if status == 0 else None

    def requests(self, query):
        """The requests that are stored, the newest first."""
        found = self.ask("find", query)
        return found["requests"] if found else []

    def show(self, identifier):
        """Draws a request, or a whole trace."""
        sys.stdout.flush()
        shown = start_process([self.program, "show", identifier, "--store", self.store])
        if shown.wait(REQUEST_SECONDS) != 0:
            raise DemoFailed("The collector cannot show %s." % identifier)
        print(flush=True)


FREE_PORTS = {"handshake": 0, "data": 0, "http": 0}


def start_collector(program, store, free_ports):
    """The collector on its usual ports; on free ones if those are taken or `free_ports` is set."""
    if free_ports:
        return Collector(program, store, FREE_PORTS)
    try:
        return Collector(program, store, {})
    except DemoFailed as problem:
        if "in use" not in str(problem):
            raise
        collector = Collector(program, store, FREE_PORTS)
        print("The usual ports are not all free; this demo uses %d and %d instead."
              % (collector.status_port, collector.data_port))
        return collector


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


# Questions to the engine itself, which no collector need hear of.
UNHEARD = ["-d", "kaq.status_port=0", "-d", "kaq.data_port=0"]


def php_command(options, collector):
    """The engine with the extension. An engine that already loads kaq by its php.ini is run
    without that file, so that it is this build that is shown."""
    question = "echo (int) extension_loaded('kaq');"
    _, loaded = run([options.php] + UNHEARD + ["-r", question], PROBE_SECONDS,
                    stderr=subprocess.DEVNULL)
    command = [options.php]
    if loaded.strip().endswith(b"1"):
        command.append("-n")
        print("The engine's php.ini loads kaq already; the demo runs the engine without it.")
    settings = {
        "extension": options.extension,
        "kaq.status_port": collector.status_port,
        "kaq.data_port": collector.data_port,
        "kaq.application_name": APPLICATION,
        "kaq.capture_distributed_trace": 1,
    }
    for name, value in settings.items():
        command += ["-d", "%s=%s" % (name, value)]
    return command


def check_loads(command):
    """The engine's modules, kaq among them."""
    _, shown = run(command + UNHEARD + ["-m"], PROBE_SECONDS, stderr=subprocess.STDOUT)
    modules = shown.split()
    if b"kaq" not in modules:
        complaint = shown.split(b"[PHP Modules]")[0].decode("utf-8", "replace").strip()
        raise DemoFailed("The engine does not load the extension. It says:\n%s"
                         % (complaint[:800] or "(nothing)"))
    return modules


def processes_environment():
    """What the demo's own PHP processes see. No proxy stands between them."""
    environment = {name: value for name, value in os.environ.items()
                   if not name.lower().endswith("_proxy")}
    environment["KAQ_ACCOUNT_KEY"] = ACCOUNT_KEY
    return environment


def start_servers(command, log, environment):
    """The services and the shop, each under PHP's built-in web server, as (servers, the shop's
    port)."""
    environment = dict(environment)
    servers = []
    for application, name in SERVICES.items():
        as_service = command + ["-d", "kaq.application_name=" + application]
        server, port = start_server(as_service, os.path.join("services", name + ".php"), log,
                                    environment)
        servers.append(server)
        environment["DEMO_" + name.upper()] = "http://127.0.0.1:%d" % port
    server, port = start_server(command, os.path.join("app", "index.php"), log, environment)
    return servers + [server], port


def start_server(command, script, log, environment):
    """A server that answers, and its port; its own output goes to the open file `log`."""
    path = os.path.join(HERE, script)
    for _ in range(START_ATTEMPTS):
        port = free_port()
        arguments = ["-S", "127.0.0.1:%d" % port, "-t", os.path.dirname(path), path]
        server = start_process(command + arguments, stdout=log, stderr=log, env=environment)
        wait_for_answer(server, port)
        if server.poll() is None:
            return server, port
    # The servers write where this descriptor stands, so it is not to be moved.
    said = os.pread(log.fileno(), 1 << 20, 0).decode("utf-8", "replace")
    raise DemoFailed("The web server of %s does not start. It says:\n%s" % (script, said[-800:]))


def wait_for_answer(server, port):
    """Until the server listens or has ended; it is ended if it does neither in time."""
    deadline = time.monotonic() + SERVER_SECONDS
    while time.monotonic() < deadline and server.poll() is None:
        try:
            socket.create_connection(("127.0.0.1", port), timeout=1).close()
            return
        except OSError:
            time.sleep(0.05)
    stop([server])


def stop(processes):
    for process in processes:
        process.terminate()
    for process in processes:
        try:
            process.wait(STOP_SECONDS)
        except subprocess.TimeoutExpired:
            process.kill()
            process.wait()


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


def run_job(command, environment):
    """The job's own output."""
    status, output = run(command + ["job.php"] + JOB_ARGUMENTS, REQUEST_SECONDS,
                         cwd=os.path.join(HERE, "app"), stderr=subprocess.STDOUT,
                         env=environment)
    said = output.decode("utf-8", "replace").strip()
    if status != 0:
        raise DemoFailed("The job ended with status %d. It says:\n%s" % (status, said))
    return said


def until(look, seconds):
    """What look() returns once it is true; its last answer when the time is up."""
    deadline = time.monotonic() + seconds
    while True:
        found = look()
        if found or time.monotonic() >= deadline:
            return found
        time.sleep(0.05)


def own_requests(collector):
    """The usual ports may hear other applications of this machine too."""
    return collector.requests('app:"%s"' % APPLICATION)


def show_arrival(collector, what, known, seconds=ARRIVAL_SECONDS):
    """Draws the request that `what` causes; `known` are the requests before it."""
    def arrived():
        return [request for request in own_requests(collector) if request["id"] not in known]

    new = until(arrived, seconds)
    if not new:
        raise DemoFailed("No transaction arrived for %s within %g seconds." % (what, seconds))
    known.update(request["id"] for request in new)
    return new[0]


def missing_of(requests):
    """The services that a trace still lacks."""
    came = {request["application"] for request in requests}
    return [name for name in (APPLICATION, *SERVICES) if name not in came]


def show_trace(collector, what, known, seconds=ARRIVAL_SECONDS):
    """Draws the trace that `what` causes, once each of its calls has its request. A called service
    may tell of its request before or after its caller does."""
    trace = show_arrival(collector, what, known, seconds)["trace_id"]

    def whole():
        requests = collector.requests("trace:" + trace)
        return requests if len(requests) == TRACED_REQUESTS else None

    if not until(whole, seconds):
        requests = collector.requests("trace:" + trace)
        raise DemoFailed("The trace of %s is not complete after %g seconds: %d of %d requests%s"
                         % (what, seconds, len(requests), TRACED_REQUESTS,
                            "".join(", none of " + name for name in missing_of(requests))))
    collector.show(trace)


def prompt(text):
    is_terminal = sys.stdout.isatty() and not os.environ.get("NO_COLOR")
    print(("\x1b[2m$ \x1b[0m" if is_terminal else "$ ") + text, flush=True)


def visit_aloud(port, page):
    path, wanted = page
    url = "http://127.0.0.1:%d%s" % (port, path)
    prompt("curl " + shlex.quote(url))
    visit(url, wanted)


def serve(collector, port):
    """Until somebody ends it, or the collector ends by itself."""
    status, link = run([collector.program, "open", "--store", collector.store], REQUEST_SECONDS)
    if status != 0:
        raise DemoFailed("The collector gives no link to its pages.")
    print("\nAll of it in a browser, by a link that works once:\n  %s\n"
          "The shop itself, for more requests:\n  http://127.0.0.1:%d/\nCtrl-C ends both."
          % (link.decode().strip(), port), flush=True)
    try:
        collector.process.wait()
    except KeyboardInterrupt:
        return
    raise DemoFailed("The collector has ended.")


def play(options, collector, log):
    known = {request["id"] for request in own_requests(collector)}
    command = php_command(options, collector)
    has_curl = b"curl" in check_loads(command)
    environment = processes_environment()
    servers, port = start_servers(command, log, environment)
    try:
        for page in PAGES:
            visit_aloud(port, page)
            collector.show(show_arrival(collector, page[0], known)["id"])
        if has_curl:
            visit_aloud(port, TRACED_PAGE)
            show_trace(collector, TRACED_PAGE[0], known)
        prompt("php job.php " + " ".join(JOB_ARGUMENTS))
        print(run_job(command, environment))
        collector.show(show_arrival(collector, "the job", known)["id"])
        print("%d requests and a command-line job: each arrived as one transaction." % len(PAGES))
        if has_curl:
            print("One more request and those that it caused in %d other services: one trace."
                  % len(SERVICES))
        else:
            print("This engine has no curl: the trace through several services was left out.")
        if options.serve:
            serve(collector, port)
    finally:
        stop(servers)


def on_interruption(handler):
    for ending in (signal.SIGINT, signal.SIGTERM):
        signal.signal(ending, handler)


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--php", required=True, metavar="FILE", help="command-line engine")
    parser.add_argument("--extension", required=True, metavar="FILE", help="the built kaq.so")
    parser.add_argument("--collector", required=True, metavar="FILE", help="the built kaq")
    parser.add_argument("--free-ports", action="store_true",
                        help="use any free ports for the collector, not the usual ones")
    parser.add_argument("--serve", action="store_true",
                        help="keep the collector and the shop running until Ctrl-C")
    options = parser.parse_args()
    sys.stdout.reconfigure(errors="replace")
    try:
        on_interruption(Interrupts.arrived)
        with tempfile.TemporaryDirectory(prefix="kaq-demo-") as scratch:
            os.environ["TMPDIR"] = scratch
            with open(os.path.join(scratch, "server.log"), "w+b") as log:
                try:
                    store = os.path.join(scratch, "store")
                    os.mkdir(store)
                    play(options, start_collector(options.collector, store, options.free_ports),
                         log)
                finally:
                    Interrupts.held = True
                    stop(STARTED)
        return 0
    except (DemoFailed, subprocess.TimeoutExpired) as problem:
        print("demo: %s" % problem, file=sys.stderr)
        return 1
    except KeyboardInterrupt:
        return 130
    finally:
        Interrupts.held = True


if __name__ == "__main__":
    sys.exit(main())
