"""The whole demonstration with the engine under test, and the picture that is made of it."""

import contextlib
import io
import json
import os
import re
import signal
import subprocess
import sys
import time
import urllib.request
import xml.etree.ElementTree

import pytest

DEMO = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "..", "demo")
sys.path.insert(0, DEMO)

import collector as demo_collector  # noqa: E402
import play  # noqa: E402

SECONDS = 60
PAGES = ["/", "/shop/cart?item=3", "/report", "/error"]
TITLES = PAGES + ["trace", "job.php"]


def run(program, *arguments):
    environment = dict(os.environ, COLUMNS="96", PYTHONIOENCODING="utf-8")
    return subprocess.run([sys.executable, os.path.join(DEMO, program)] + list(arguments),
                          stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                          stderr=subprocess.PIPE, env=environment, timeout=SECONDS)


def waterfalls(output):
    """The lines of each transaction by its title."""
    found, current = {}, None
    for line in output.split("\n"):
        title = re.match(r"━━ (trace|.*?)(?: [0-9a-f]{32})? ━+$", line)
        if title:
            current = found.setdefault(title.group(1), [])
        elif line.startswith("$ "):
            current = None
        elif current is not None:
            current.append(line)
    return found


def has_span(lines, depth, name):
    return any(re.match(" {%d}%s  .*█.* ms$" % (2 + 2 * depth, re.escape(name)), line)
               for line in lines)


def test_demonstration_shows_every_transaction_and_ends_well(engine):
    played = run("play.py", "--free-ports", "--php", engine.php, "--extension", engine.so)
    output = played.stdout.decode()
    assert (played.returncode, played.stderr) == (0, b""), output
    assert "garbage" not in output
    shown = waterfalls(output)
    assert list(shown) == TITLES
    for title in PAGES:
        status = 500 if title == "/error" else 200
        assert shown[title][0].startswith("  web · GET · status %d · " % status)
    assert shown["job.php"][0].startswith("  command line · ")
    assert "  arguments nightly --orders=2" in shown["job.php"]
    for title in PAGES + ["job.php"]:
        assert has_span(shown[title], 0, "main")
    assert has_span(shown["/"], 2, "{closure}")
    assert has_span(shown["/shop/cart?item=3"], 4, "VolumePrice::perPiece")
    assert has_span(shown["/report"], 5, "department_total")
    assert has_span(shown["/error"], 3, "Cart::pay")
    assert has_span(shown["job.php"], 1, "main_job")
    check_trace(shown["trace"])


def request_in(lines, name):
    """(position, indentation, facts) of a request in the drawing of a trace."""
    (at,) = [at for at, line in enumerate(lines) if line.strip().startswith(name + "  ")]
    indent = len(lines[at]) - len(lines[at].lstrip())
    facts = []
    for line in lines[at + 1:]:
        if re.search(r" (ms|s)$", line) or len(line) - len(line.lstrip()) != indent + 2:
            break
        facts += line.strip().split(" · ")
    return at, indent, facts


def check_trace(lines):
    """Each call names its span, and the request below it names the same one as its caller."""
    assert lines[0].startswith(
        "  Demo shop · Demo prices · Demo stock · 5 requests · 4 HTTP calls · ")
    assert request_in(lines, "Demo shop /order?item=3")[1:] == (2, ["GET", "status 200"])
    callers = set()
    for name, page, flow in (("Demo prices", "/price", "demo-shop;"),
                             ("Demo stock", "/left", "demo-shop;demo-prices;"),
                             ("Demo stock", "/delivery", "demo-shop;"),
                             ("Demo prices", "/discount", "demo-shop;")):
        at, indent, facts = request_in(lines, "%s %s?item=3" % (name, page))
        at_once = page in ("/delivery", "/discount")
        assert facts[:3] == ["GET", "status 200", "flow " + flow]
        assert facts[3:-1] == (["called async"] if at_once else [])
        caller = re.match(r"caller ([0-9a-f]{16})$", facts[-1]).group(1)
        callers.add(caller)
        call = max(position for position in range(at)
                   if re.search(r" curl_(multi_)?exec \[HTTP\]", lines[position])
                   and len(lines[position]) - len(lines[position].lstrip()) == indent - 2)
        assert ("(async)" in lines[call]) == at_once
        told = " ".join(lines[call + 1:at])
        assert re.search(r"http://127\.0\.0\.1:\d+%s\?item=3 " % page, told)
        assert "status 200" in told and "span " + caller in told
    assert len(callers) == 4


def test_engine_without_curl_leaves_the_trace_out_and_says_so(engine, tmp_path):
    bare = tmp_path / "php"
    bare.write_text('#!/bin/sh\nexec "%s" -n "$@"\n' % engine.php)
    bare.chmod(0o755)
    if b"curl" in subprocess.run([str(bare), "-m"], stdout=subprocess.PIPE, check=True,
                                 timeout=SECONDS).stdout.split():
        pytest.skip("curl is built into this engine")
    played = run("play.py", "--free-ports", "--php", str(bare), "--extension", engine.so)
    output = played.stdout.decode()
    assert (played.returncode, played.stderr) == (0, b""), output
    assert list(waterfalls(output)) == PAGES + ["job.php"]
    assert "This engine has no curl: the trace through several services was left out." in output


def test_extension_that_does_not_load_is_said(engine, tmp_path):
    played = run("play.py", "--free-ports", "--php", engine.php,
                 "--extension", str(tmp_path / "none.so"))
    assert played.returncode == 1
    assert played.stderr.decode().startswith("demo: The engine does not load the extension.")


def test_other_applications_are_passed_over_and_silence_is_explained():
    collector = demo_collector.Collector(0, 0)
    alien, own = ({"apm": {"application_info": {"application_name": name},
                           "transaction_info": {"t_name": "/" + name}}}
                  for name in ("alien", play.APPLICATION))
    try:
        for event in (("transaction", alien), ("transaction", own), ("transaction", alien)):
            collector.events.put(event)
        written = io.StringIO()
        with contextlib.redirect_stdout(written):
            play.show_arrival(collector, "/", (80, False))
        assert written.getvalue().startswith("━━ /%s ━" % play.APPLICATION)
        assert "alien" not in written.getvalue()

        collector.events.put(("handshake", None))
        collector.events.put(("notice", "instance is disabled"))
        with pytest.raises(play.DemoFailed) as failure:
            play.show_arrival(collector, "/page", (80, False), seconds=0.1)
        assert str(failure.value) == (
            "No transaction arrived for /page within 0.1 seconds. "
            "The collector was asked and said yes.\nThe collector received: instance is disabled")
    finally:
        collector.stop()


CAPTURE = """[ 1s] building
\x1b[2m$ \x1b[0mcurl http://127.0.0.1:1/a
\x1b[2m━━ \x1b[0m\x1b[1m/a\x1b[0m\x1b[2m ━━━━\x1b[0m
  web · \x1b[31mstatus 500\x1b[0m <&>\r

  main \x1b[34m██▌\x1b[0m  5 ms

\x1b[2m$ \x1b[0mcurl http://127.0.0.1:1/b
  other

  main \x1b[34m█\x1b[0m  1 ms

Now with an application of your own
"""


def test_picture_holds_the_kept_commands_and_nothing_else(tmp_path):
    capture, picture = tmp_path / "capture", tmp_path / "picture.svg"
    capture.write_text(CAPTURE)
    assert run("render_svg.py", "--keep", "/a", str(capture), str(picture)).returncode == 0
    root = xml.etree.ElementTree.parse(str(picture)).getroot()
    name = "{http://www.w3.org/2000/svg}%s"
    texts = [element.text for element in root.iter(name % "text")]
    assert texts == ["script/demo", "$", "curl http://127.0.0.1:1/a", "/a", "web ·",
                     "status 500", "<&>", "main", "5 ms"]
    colours = {element.text: element.get("fill") for element in root.iter(name % "text")}
    assert colours["status 500"] != colours["main"]
    bars = [element.get("width") for element in root.iter(name % "rect")]
    assert "%.2f" % (2.5 * 8.4) in bars


def test_picture_of_nothing_is_refused(tmp_path):
    capture, picture = tmp_path / "capture", tmp_path / "picture.svg"
    capture.write_text(CAPTURE)
    made = run("render_svg.py", "--keep", "/c", str(capture), str(picture))
    assert made.returncode == 1 and not picture.exists()


def fake_engine(tmp_path, body):
    """A program in the place of the engine; its arguments are in "$@"."""
    fake = tmp_path / "fake-php"
    fake.write_text("#!/bin/sh\n" + body)
    fake.chmod(0o755)
    return [str(fake)]


def test_server_whose_port_was_taken_meanwhile_gets_another_one(engine, tmp_path):
    command = fake_engine(tmp_path, """
        echo x >>"{0}/starts"
        test $(wc -l <"{0}/starts") -ge 3 || {{ echo "port taken"; exit 1; }}
        exec "{1}" -n "$@"
        """.format(tmp_path, engine.php))
    with open(tmp_path / "log", "w+b") as log:
        server, port = play.start_server(command, "services/stock.php", log, dict(os.environ))
        try:
            answer = urllib.request.build_opener(urllib.request.ProxyHandler({})).open(
                "http://127.0.0.1:%d/left?item=3" % port, timeout=SECONDS).read()
        finally:
            play.stop([server])
    assert json.loads(answer) == {"pieces": 12}
    assert server.poll() is not None


def test_server_that_never_starts_is_said_with_its_own_words(tmp_path):
    command = fake_engine(tmp_path, 'echo "no such option"; exit 1\n')
    with open(tmp_path / "log", "w+b") as log, pytest.raises(play.DemoFailed) as failure:
        play.start_server(command, "services/stock.php", log, dict(os.environ))
    told = str(failure.value).split("\n")
    assert told[0] == "The web server of services/stock.php does not start. It says:"
    assert told[1] == "no such option"


def test_interruption_while_a_process_is_being_started_waits_until_it_is_known(monkeypatch):
    start = subprocess.Popen

    def interrupted_start(*arguments, **how):
        process = start(*arguments, **how)
        signal.raise_signal(signal.SIGTERM)
        return process

    monkeypatch.setattr(play, "STARTED", [])
    monkeypatch.setattr(play.Interrupts, "pending", False)
    before = {ending: signal.getsignal(ending) for ending in (signal.SIGINT, signal.SIGTERM)}
    try:
        play.on_interruption(play.Interrupts.arrived)
        with monkeypatch.context() as patched, pytest.raises(KeyboardInterrupt):
            patched.setattr(subprocess, "Popen", interrupted_start)
            play.start_process(["sleep", "60"])
    finally:
        for ending, handler in before.items():
            signal.signal(ending, handler)
        play.stop(play.STARTED)
    assert [process.returncode for process in play.STARTED] == [-signal.SIGTERM]


@pytest.mark.parametrize("seconds", [0.2, 0.5, 0.8])
def test_ended_demonstration_leaves_no_process(engine, tmp_path, seconds):
    """The servers share the demonstration's process group, which is empty once they have ended."""
    with open(tmp_path / "output", "w+b") as output:
        playing = subprocess.Popen(
            [sys.executable, os.path.join(DEMO, "play.py"), "--free-ports", "--php", engine.php,
             "--extension", engine.so], stdin=subprocess.DEVNULL, stdout=output, stderr=output,
            start_new_session=True)
        try:
            time.sleep(seconds)
            playing.send_signal(signal.SIGTERM)
            status = playing.wait(SECONDS)
            with pytest.raises(ProcessLookupError):
                os.killpg(playing.pid, 0)
        finally:
            with contextlib.suppress(ProcessLookupError):
                os.killpg(playing.pid, signal.SIGKILL)
            playing.wait(SECONDS)
        output.seek(0)
        # It dies of the signal while it has not yet begun.
        assert status in (0, 130, -signal.SIGTERM) and b"Traceback" not in output.read()
