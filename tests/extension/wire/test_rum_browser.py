"""The browser snippet in a real browser: the page renders, and the snippet ran once."""
import os
import re
import shutil
import subprocess

import pytest
from fake_collector import ENABLED

DEADLINE = 120.0
# The snippet counts its runs, and tells whether the document's body was there yet.
SNIPPET = ("<script>window.runs = (window.runs || 0) + 1;"
           "window.ranBeforeBody = document.body === null;"
           "window.ranInHead = document.currentScript.parentNode === document.head;"
           "window.styleWasThere = document.styleSheets.length > 0;</script>")
BROWSERS = ("chromium", "chromium-headless-shell", "chromium-browser", "google-chrome")

PAGE = """
    header('Content-Type: text/html; charset=utf-8');
    echo '<!DOCTYPE html><html><head><meta charset="utf-8"><title>Orders</title>';
    echo '<style>h1 { color: rgb(0, 96, 0); }</style>%s</head>';
    echo '<body><h1 id="title">Orders</h1><p>', str_repeat('caf&eacute; ', %d), '</p>';
    %s
    echo '<script>var seen = [window.runs, window.ranBeforeBody, window.ranInHead,',
         'window.styleWasThere, getComputedStyle(document.getElementById("title")).color,',
         'document.title, document.querySelectorAll("p").length];',
         'document.body.setAttribute("data-seen", JSON.stringify(seen));</script></body></html>';
"""


@pytest.fixture(scope="module")
def browser():
    found = next(filter(None, map(shutil.which, BROWSERS)), None)
    if not found:
        pytest.skip("there is no Chromium")
    return found


def rendered(browser, directory, url, *options):
    """The document as it stands when all its scripts have run."""
    # The extension gives up a collector that takes over a second: both go before the browser.
    command = ["nice", "-n", "10", browser, "--headless", "--no-sandbox", "--disable-gpu",
               "--no-first-run", "--disable-background-networking", "--disable-component-update",
               "--disable-dev-shm-usage", "--host-resolver-rules=MAP * ~NOTFOUND, "
               "EXCLUDE 127.0.0.1", "--user-data-dir=%s" % (directory / "profile"),
               "--virtual-time-budget=5000", *options, "--dump-dom", url]
    done = subprocess.run(command, stdin=subprocess.DEVNULL, capture_output=True, check=True,
                          timeout=DEADLINE, env=dict(os.environ, HOME=str(directory)))
    return done.stdout.decode()


def seen_by(browser, wire, source, settings=None):
    server = wire.builtin_server(source, settings)
    dom = rendered(browser, wire.directory, "http://127.0.0.1:%d/orders" % server.port)
    return dom, re.search(r'data-seen="([^"]*)"', dom).group(1).replace("&quot;", '"')


@pytest.mark.parametrize("source", [
    PAGE % ("", 10, ""), PAGE % ("", 20000, ""), PAGE % ("", 10, "ob_flush(); flush();"),
    PAGE % ("", 10, "echo '</head></HEAD>';")],
    ids=["small page", "large page", "page in two chunks", "stray closing tags"])
@pytest.mark.parametrize("compressed", [0, 1], ids=["plain", "compressed"])
def test_page_renders_and_the_snippet_ran_once(browser, wire, collector, source, compressed):
    collector.reply = dict(ENABLED, **{"webtransaction.rum.snippet": SNIPPET})
    dom, seen = seen_by(browser, wire, source, {"zlib.output_compression": compressed})
    assert seen == '[1,true,true,true,"rgb(0, 96, 0)","Orders",1]'
    assert dom.count(SNIPPET) == 1
    assert dom.index("</style>") < dom.index(SNIPPET) < dom.index("</head>") < dom.index("<body")


def test_page_renders_the_same_without_the_snippet(browser, wire, collector):
    dom, seen = seen_by(browser, wire, PAGE % ("", 10, ""))
    assert seen == '[null,null,null,null,"rgb(0, 96, 0)","Orders",1]'
    assert "window.runs = " not in dom
