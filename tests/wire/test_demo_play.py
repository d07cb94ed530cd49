"""The whole demonstration with the engine under test, and the picture that is made of it."""

import contextlib
import io
import os
import re
import subprocess
import sys
import xml.etree.ElementTree

import pytest

DEMO = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "demo")
sys.path.insert(0, DEMO)

import agent as demo_agent  # noqa: E402
import play  # noqa: E402

SECONDS = 60
TITLES = ["/", "/shop/cart?item=3", "/report", "/error", "job.php"]


def run(program, *arguments):
    environment = dict(os.environ, COLUMNS="96", PYTHONIOENCODING="utf-8")
    return subprocess.run([sys.executable, os.path.join(DEMO, program)] + list(arguments),
                          stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                          stderr=subprocess.PIPE, env=environment, timeout=SECONDS)


def waterfalls(output):
    """The lines of each transaction by its title."""
    found, current = {}, None
    for line in output.split("\n"):
        title = re.match(r"━━ (.*?) ━+$", line)
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
    for title in TITLES[:4]:
        status = 500 if title == "/error" else 200
        assert shown[title][0].startswith("  web · GET · status %d · " % status)
    assert shown["job.php"][0].startswith("  command line · ")
    assert "  arguments nightly --orders=2" in shown["job.php"]
    for lines in shown.values():
        assert has_span(lines, 0, "main")
    assert has_span(shown["/"], 2, "{closure}")
    assert has_span(shown["/shop/cart?item=3"], 4, "VolumePrice::perPiece")
    assert has_span(shown["/report"], 5, "department_total")
    assert has_span(shown["/error"], 3, "Cart::pay")
    assert has_span(shown["job.php"], 1, "main_job")


def test_extension_that_does_not_load_is_said(engine, tmp_path):
    played = run("play.py", "--free-ports", "--php", engine.php,
                 "--extension", str(tmp_path / "none.so"))
    assert played.returncode == 1
    assert played.stderr.decode().startswith("demo: The engine does not load the extension.")


def test_other_applications_are_passed_over_and_silence_is_explained():
    agent = demo_agent.Agent(0, 0)
    alien, own = ({"apm": {"application_info": {"application_name": name},
                           "transaction_info": {"t_name": "/" + name}}}
                  for name in ("alien", play.APPLICATION))
    try:
        for event in (("transaction", alien), ("transaction", own), ("transaction", alien)):
            agent.events.put(event)
        written = io.StringIO()
        with contextlib.redirect_stdout(written):
            play.show_arrival(agent, "/", (80, False))
        assert written.getvalue().startswith("━━ /%s ━" % play.APPLICATION)
        assert "alien" not in written.getvalue()

        agent.events.put(("handshake", None))
        agent.events.put(("notice", "instance is disabled"))
        with pytest.raises(play.DemoFailed) as failure:
            play.show_arrival(agent, "/page", (80, False), seconds=0.1)
        assert str(failure.value) == (
            "No transaction arrived for /page within 0.1 seconds. "
            "The agent was asked and said yes.\nThe agent received: instance is disabled")
    finally:
        agent.stop()


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
