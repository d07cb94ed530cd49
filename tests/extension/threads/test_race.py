"""No data race: the extension, watched by a sanitizer, in many threads of the embed library.

With ThreadSanitizer what the engine itself does is not watched, but for its locks: a report is
about memory that the extension touches. An engine built with AddressSanitizer has the extension
watched by that instead.
"""
import subprocess

import page_calls
import pytest

THREADS = 16
REQUESTS_OF_EACH = 20
NUMBERS = range(1, THREADS * REQUESTS_OF_EACH + 1)
# Of several attempts: that two threads are at it together cannot be forced.
ATTEMPTS = 10
DEADLINE = 200
REPORT = "ThreadSanitizer: data race"


def run(programs, name, page, collector):
    settings = "kaq.status_port=%d\nkaq.data_port=%d\ndisplay_errors=0\n" % (
        collector.status_port, collector.data_port)
    return subprocess.run(
        [*programs.launcher, str(programs.directory / name), str(THREADS), str(REQUESTS_OF_EACH),
         str(page), settings],
        stdin=subprocess.DEVNULL, capture_output=True, timeout=DEADLINE, env=programs.environment,
        text=True, errors="replace")


@pytest.fixture
def page(tmp_path):
    path = tmp_path / "page.php"
    path.write_text(page_calls.PAGE, encoding="ascii")
    return path


def test_threads_run_without_a_race(race_programs, page, collector):
    result = run(race_programs, "race", page, collector)
    assert result.stderr[:4000] == ""
    assert result.returncode == 0
    assert sorted(result.stdout.split()) == sorted(map(page_calls.expected_body, NUMBERS))
    page_calls.check_payloads(collector, NUMBERS)


def test_race_that_was_planted_is_seen(race_programs, page, collector):
    """The registry without its lock: else the test above could not fail."""
    if race_programs.sanitizer != "thread":
        pytest.skip("this engine is for another sanitizer")
    for _ in range(ATTEMPTS):
        result = run(race_programs, "race_planted", page, collector)
        if REPORT in result.stderr:
            break
    assert REPORT in result.stderr
    assert "registry_planted.cpp" in result.stderr
    assert result.returncode != 0
