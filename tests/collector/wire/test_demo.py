"""The whole demonstration with the engine under test, and the picture that is made of it."""

import contextlib
import json
import os
import re
import signal
import subprocess
import sys
import threading
import time
import urllib.request
import xml.etree.ElementTree

import pytest

DEMO = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "..", "demo")
sys.path.insert(0, DEMO)

import play  # noqa: E402

SECONDS = 90
PAGES = ["/", "/shop/cart?item=3", "/report", "/error"]


@pytest.fixture
def engine():
    """What the demonstration is run with."""
    if not os.environ.get("KAQ_PHP"):
        pytest.skip("no engine is under test")
    return ["--php", os.environ["KAQ_PHP"], "--extension", os.environ["KAQ_SO"],
            "--collector", os.environ["KAQ_COLLECTOR"], "--free-ports"]


def run(program, *arguments):
    environment = dict(os.environ, COLUMNS="96", PYTHONIOENCODING="utf-8")
    return subprocess.run([sys.executable, os.path.join(DEMO, program)] + list(arguments),
                          stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                          stderr=subprocess.PIPE, env=environment, timeout=SECONDS)


def shown(output):
    """What was printed for each command."""
    parts = re.split(r"^\$ (.*)$", output, flags=re.MULTILINE)
    return {re.sub(r"http://127\.0\.0\.1:\d+", "", command): text
            for command, text in zip(parts[1::2], parts[2::2])}


def test_demonstration_shows_every_request_and_ends_well(engine):
    played = run("play.py", *engine)
    output = played.stdout.decode()
    assert (played.returncode, played.stderr) == (0, b""), output
    parts = shown(output)
    assert [command.split()[0] for command in parts] == ["curl"] * 5 + ["php"]
    for command, text in parts.items():
        assert ("main" in text) != ("/order" in command), command
    cart = next(text for command, text in parts.items() if "/shop/cart" in command)
    assert "VolumePrice::perPiece" in cart
    assert "department_total" in next(t for c, t in parts.items() if "/report" in c)
    assert "Cart::pay" in next(t for c, t in parts.items() if "/error" in c)
    trace = next(text for command, text in parts.items() if "/order" in command)
    for name in ("Demo shop", "Demo prices", "Demo stock"):
        assert name in trace
    assert "main_job" in next(t for c, t in parts.items() if "job.php" in c)


def test_engine_without_curl_leaves_the_trace_out_and_says_so(engine, tmp_path):
    bare = tmp_path / "php"
    bare.write_text('#!/bin/sh\nexec "%s" -n "$@"\n' % os.environ["KAQ_PHP"])
    bare.chmod(0o755)
    if b"curl" in subprocess.run([str(bare), "-m"], stdout=subprocess.PIPE, check=True,
                                 timeout=SECONDS).stdout.split():
        pytest.skip("curl is built into this engine")
    played = run("play.py", *engine, "--php", str(bare))
    output = played.stdout.decode()
    assert (played.returncode, played.stderr) == (0, b""), output
    assert len(shown(output)) == len(PAGES) + 1
    assert "This engine has no curl: the trace through several services was left out." in output


def test_extension_that_does_not_load_is_said(engine, tmp_path):
    played = run("play.py", *engine, "--extension", str(tmp_path / "none.so"))
    assert played.returncode == 1
    assert played.stderr.decode().startswith("demo: The engine does not load the extension.")


class FakeCollector:
    """Answers with one list after the other, then with the last one again."""
    def __init__(self, *answers):
        self.answers = list(answers)
        self.asked = []

    def requests(self, query):
        self.asked.append(query)
        return self.answers.pop(0) if len(self.answers) > 1 else self.answers[0]


def test_only_new_requests_of_the_demo_count():
    old, new = {"id": "aa"}, {"id": "bb"}
    known = {"aa"}
    collector = FakeCollector([old], [old], [new, old])
    assert play.show_arrival(collector, "/", known) is new
    assert known == {"aa", "bb"}
    assert set(collector.asked) == {'app:"Demo shop"'}
    with pytest.raises(play.DemoFailed) as failure:
        play.show_arrival(collector, "/page", known, seconds=0.1)
    assert str(failure.value) == "No transaction arrived for /page within 0.1 seconds."


def test_trace_with_a_gap_fails_and_says_what_is_missing():
    root = {"id": "aa", "trace_id": "t1", "application": "Demo shop"}
    prices = {"id": "bb", "trace_id": "t1", "application": "Demo prices"}
    collector = FakeCollector([root], [root, prices])
    with pytest.raises(play.DemoFailed) as failure:
        play.show_trace(collector, "/order", set(), seconds=0.2)
    assert str(failure.value) == ("The trace of /order is not complete after 0.2 seconds: "
                                  "2 of 6 requests, none of Demo stock")


CAPTURE = """[ 1s] building
\x1b[2m$ \x1b[0mcurl http://127.0.0.1:1/a
\x1b[2m━━ \x1b[0m\x1b[1m/a\x1b[0m\x1b[2m ━━━━\x1b[0m
  web · \x1b[31mstatus 500\x1b[0m <&>\r

  three
  services

  main \x1b[34m██▌\x1b[0m  5 ms
\x1b[32m█\x1b[0m itself

The demo's own words

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
                     "status 500", "<&>", "three", "services", "main", "5 ms", "itself"]
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
        """.format(tmp_path, os.environ["KAQ_PHP"]))
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


def test_demonstration_serves_until_it_is_ended(engine):
    """Its link logs a browser in, and Ctrl-C is the usual end."""
    playing = subprocess.Popen(
        [sys.executable, os.path.join(DEMO, "play.py"), *engine, "--serve"],
        stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
        start_new_session=True)
    watchdog = threading.Timer(SECONDS, playing.kill)
    watchdog.start()
    try:
        addresses = []
        for line in playing.stdout:
            addresses += re.findall(rb"^  (http://\S+)$", line)
            if line.startswith(b"Ctrl-C"):
                break
        pages, shop = addresses
        with urllib.request.urlopen(pages.decode(), timeout=SECONDS) as answer:
            assert answer.status == 200 and "code=" not in answer.geturl()
        with urllib.request.urlopen(shop.decode(), timeout=SECONDS) as answer:
            assert answer.status == 200
        playing.send_signal(signal.SIGINT)
        _, said = playing.communicate(timeout=SECONDS)
        assert (playing.returncode, said) == (0, b"")
        with pytest.raises(ProcessLookupError):
            os.killpg(playing.pid, 0)
    finally:
        watchdog.cancel()
        with contextlib.suppress(ProcessLookupError):
            os.killpg(playing.pid, signal.SIGKILL)
        playing.wait(SECONDS)


@pytest.mark.parametrize("seconds", [0.2, 0.5, 0.8])
def test_ended_demonstration_leaves_no_process(engine, tmp_path, seconds):
    """The servers share the demonstration's process group, which is empty once they have ended."""
    with open(tmp_path / "output", "w+b") as output:
        playing = subprocess.Popen(
            [sys.executable, os.path.join(DEMO, "play.py"), *engine], stdin=subprocess.DEVNULL, stdout=output, stderr=output,
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
