"""The configuration file, as the command line takes it."""
import json
import os
import pathlib
import re
import subprocess

import pytest

EXAMPLE = pathlib.Path(__file__).resolve().parents[3] / "packaging" / "collector.toml"
# A setting, or the head of a list's section, that is commented out.
SETTING = re.compile(r"^# (?=\[\[|\w+ = )", re.MULTILINE)


def kaq(*arguments):
    return subprocess.run([os.environ["KAQ_COLLECTOR"], *arguments], capture_output=True, text=True,
                          timeout=30)


def written(path, text):
    path.write_text(text)
    return str(path)


def test_the_example_has_no_mistake():
    done = kaq("config", "check", "--config", str(EXAMPLE))
    assert (done.returncode, done.stderr) == (0, "")


def test_what_the_example_leaves_out_is_right_too(tmp_path):
    snippet = written(tmp_path / "snippet.html", "<script></script>")
    whole = SETTING.sub("", EXAMPLE.read_text()).replace("/etc/kaq/snippet.html", snippet)
    assert "[[alert]]\n" in whole and "\nsize_cap" in whole
    done = kaq("config", "check", "--config", written(tmp_path / "whole.toml", whole))
    assert (done.returncode, done.stderr) == (0, "")


def test_the_example_says_the_defaults(tmp_path):
    text = EXAMPLE.read_text()
    plain = SETTING.sub("", text[:text.index("# One script")])
    named = kaq("config", "show", "--config", written(tmp_path / "plain.toml", plain)).stdout
    empty = kaq("config", "show", "--config", written(tmp_path / "empty.toml", "")).stdout
    assert named.replace("directory = '/var/lib/kaq'\n", "") == empty
    assert "size_cap = '2GiB'" in empty


def test_a_shown_configuration_is_shown_the_same(tmp_path):
    first = kaq("config", "show", "--config", written(tmp_path / "a.toml",
                "[listen]\nhandshake = 7\n[[monitor]]\nshare = '10%'\n"))
    assert first.returncode == 0 and "handshake = 7" in first.stdout
    again = kaq("config", "show", "--config", written(tmp_path / "b.toml", first.stdout))
    assert (again.returncode, again.stdout) == (0, first.stdout)


@pytest.mark.parametrize("verb", [("config", "check"), ("config", "show"), ("collect",)])
def test_mistakes_end_it_with_their_lines(tmp_path, verb):
    path = written(tmp_path / "c.toml", "[listen]\nhandshak = 1\nhttp = 'x'\n")
    done = kaq(*verb, "--config", path)
    assert done.returncode == 1 and done.stdout == ""
    assert '%s:2: listen.handshak: there is no such setting; did you mean "handshake"?\n' % path \
        in done.stderr
    assert "%s:3: listen.http: has to be a whole number from 0 to 65535\n" % path in done.stderr


def test_a_file_that_is_not_there_is_a_mistake(tmp_path):
    done = kaq("config", "check", "--config", str(tmp_path / "none.toml"))
    assert done.returncode == 1 and "cannot read" in done.stderr


def test_mistakes_are_told_as_json(tmp_path):
    path = written(tmp_path / "c.toml", "[listen]\nhandshak = 1\n")
    done = kaq("config", "check", "--json", "--config", path)
    told = json.loads(done.stdout)
    assert (done.returncode, done.stderr, told["file"]) == (1, "", path)
    assert [each["line"] for each in told["mistakes"]] == [2]
    assert "there is no such setting" in told["mistakes"][0]["text"]
    path = written(tmp_path / "d.toml", "[listen]\nhandshake = 1\n")
    done = kaq("config", "check", "--json", "--config", path)
    assert (done.returncode, json.loads(done.stdout)) == (0, {"file": path, "mistakes": []})


def test_settings_are_shown_as_json(tmp_path):
    path = written(tmp_path / "c.toml", "[listen]\nhandshake = 7\n[[monitor]]\nshare = '10%'\n")
    done = kaq("config", "show", "--json", "--config", path)
    shown = json.loads(done.stdout)
    assert (done.returncode, shown["listen"]["handshake"], shown["listen"]["data"]) == (0, 7, 20022)
    assert [each["share"] for each in shown["monitor"]] == [0.1]
