"""The collector beside the real extension."""
import json
import subprocess


def listened(collector, count, act):
    """What `tail --json` shows of that many requests that `act` brings about."""
    tail = collector.start("tail", "--json", "--count", str(count))
    try:
        # It says nothing when it begins to listen: what it misses is asked for again.
        for _ in range(20):
            act()
            try:
                out, _ = tail.communicate(timeout=1)
                return [json.loads(line) for line in out.splitlines()]
            except subprocess.TimeoutExpired:
                continue
        raise AssertionError("nothing was shown")
    finally:
        if tail.poll() is None:
            tail.kill()
            tail.communicate()


def test_a_page_is_monitored_and_told(collector, php):
    source = "<?php function work() { usleep(20000); } work(); http_response_code(404); echo 'page';"
    shown = listened(collector, 1, lambda: php.page(source, "/shop/cart?item=1"))[0]
    assert shown["path"].startswith("/shop/cart")
    assert shown["status"] == 404 and shown["web"] is True and shown["failed"] is False
    assert shown["duration_ms"] >= 15
    assert shown["spans"] >= 2
    assert len(shown["id"]) == 16 and len(shown["trace_id"]) == 32


def test_queries_and_failures_are_counted(collector, php):
    source = ("<?php trigger_error('one'); try { throw new LogicException('two'); }"
              " catch (LogicException $e) {} trigger_error('three', E_USER_ERROR);")
    shown = listened(collector, 1, lambda: _ended(php, source))[0]
    assert shown["failures"] == 3 and shown["failed"] is True


def _ended(php, source):
    """The last error ends the page, with a status of its own."""
    try:
        php.page(source)
    except AssertionError:
        pass


def test_the_page_is_the_same_without_a_collector(collector, php):
    source = "<?php echo 'page';"
    assert php.page(source) == "page"
    assert collector.stop() == (0, "")
    assert php.page(source) == "page"


def test_tail_without_a_collector_says_how_to_start_one(collector):
    assert collector.stop() == (0, "")
    done = collector.run("tail")
    assert done.returncode == 1
    assert "kaq collect" in done.stderr


def test_tail_shows_a_line_a_request_without_control_characters(collector, php):
    tail = collector.start("tail", "--count", "1")
    for _ in range(20):
        php.page("<?php echo 1;", "/a\x1b[31mred\tb")
        try:
            out, _ = tail.communicate(timeout=1)
            break
        except subprocess.TimeoutExpired:
            continue
    titles, line = out.splitlines()
    assert titles.split()[:3] == ["time", "status", "duration"]
    assert "/a?[31mred b" in line and "\x1b" not in line
