"""What is in the packages, looked at without installing them."""
import gzip
import json
import os
import re
import subprocess
import tarfile

import pytest

from conftest import MADE, SECONDS, SOURCES, one

MANUAL = "usr/share/man/man1"
COMPLETION = "usr/share/bash-completion/completions/kaq"
UNIT = "lib/systemd/system/kaq.service"
INI = "etc/php/8.2/mods-available/kaq.ini"


def said(*words, status=0):
    """What a command says that ends so."""
    done = subprocess.run([str(word) for word in words], capture_output=True, text=True,
                          stdin=subprocess.DEVNULL, timeout=SECONDS)
    assert done.returncode == status, done
    return done.stdout + done.stderr


def test_lintian_finds_nothing(collector, extension):
    # lintian reads files of others' from the working directory, and says so of root.
    for package in (collector, extension):
        text = said("lintian", "--allow-root", "--no-cfg", "--fail-on", "error,warning",
                    "--display-level", ">=warning", package.path)
        assert not re.search(r"^[EW]: ", text, re.M), text


def test_the_collector_has_what_it_promises(collector):
    listing = collector.listing()
    assert listing["/usr/bin/kaq"] == "-rwxr-xr-x root/root"
    for name in ("/etc/kaq/collector.toml", "/" + UNIT, "/" + COMPLETION,
                 "/usr/lib/tmpfiles.d/kaq-collector.conf", "/usr/share/doc/kaq-collector/copyright",
                 "/usr/share/kaq-collector/prometheus/kaq.rules.yml",
                 "/usr/share/kaq-collector/prometheus/kaq-dashboard.json"):
        assert listing[name] == "-rw-r--r-- root/root"
    assert (collector.control / "conffiles").read_text() == "/etc/kaq/collector.toml\n"
    # What it makes when it is installed has owners that no package can name.
    assert not [name for name in listing if name.startswith(("/opt", "/var"))]
    assert "adduser" in collector.field("Depends")


def test_the_collector_brings_the_terms_of_what_is_compiled_into_it(collector):
    packed = collector.files / "usr/share/doc/kaq-collector/third-party-licences.gz"
    text = gzip.decompress(packed.read_bytes()).decode()
    for name in ("Boost Software License", "Niels Lohmann", "University of Cincinnati",
                 "Sébastien Rombauts", "Leon Sorokin", "Mapbox"):
        assert name in text, name


def test_the_extension_has_what_it_promises(extension):
    listing = extension.listing()
    interface = said("php-config8.2", "--phpapi").strip()
    assert listing["/usr/lib/php/%s/kaq.so" % interface] == "-rw-r--r-- root/root"
    assert listing["/" + INI] == "-rw-r--r-- root/root"
    assert (extension.control / "conffiles").read_text() == "/" + INI + "\n"
    assert "phpapi-" + interface in extension.field("Depends")


def test_binaries_tell_nothing_of_where_they_were_built(collector, extension):
    for package, name in ((collector, "usr/bin/kaq"), (extension, "usr/lib/php")):
        path = package.files / name
        program = path if path.is_file() else next(path.glob("*/kaq.so"))
        assert str(SOURCES).encode() not in program.read_bytes()
        assert "not stripped" not in said("file", program)


def verbs_of(collector):
    """The verbs that the program names."""
    text = said(collector.files / "usr/bin/kaq", "--help")
    verbs = re.findall(r"^  (\w+) ", text.partition("Subcommands:")[2], re.M)
    assert "find" in verbs
    return verbs


def test_every_verb_has_a_manual_page(collector):
    pages = {page.name for page in (collector.files / MANUAL).iterdir()}
    assert pages == {"kaq.1.gz"} | {"kaq-%s.1.gz" % verb for verb in verbs_of(collector)}


def test_manual_pages_are_shown_without_a_warning(collector):
    for page in sorted((collector.files / MANUAL).iterdir()):
        done = subprocess.run(["man", "--warnings", "-E", "UTF-8", "-l", page], capture_output=True,
                              text=True, timeout=SECONDS, env={**os.environ, "MANWIDTH": "80"})
        assert (done.returncode, done.stderr) == (0, "")
        assert "NAME\n" in done.stdout and "OPTIONS\n" in done.stdout
        assert said("mandoc", "-T", "lint", "-W", "warning", page) == ""


def test_a_manual_page_has_the_options_that_the_program_has(collector):
    text = said(collector.files / "usr/bin/kaq", "find", "--help")
    options = re.findall(r"--[a-z]+", text)
    assert "--slowest" in options
    page = said("man", "-l", collector.files / MANUAL / "kaq-find.1.gz")
    assert set(options) <= set(re.findall(r"--[a-z]+", page))


def offered(collector, *words):
    """What bash offers for the last of these words."""
    script = 'source "$0"; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); _kaq; printf "%s\\n" "${COMPREPLY[@]}"'
    done = subprocess.run(["bash", "--norc", "-c", script, collector.files / COMPLETION, *words],
                          capture_output=True, text=True, timeout=SECONDS, cwd=MADE)
    assert (done.returncode, done.stderr) == (0, "")
    return done.stdout.split()


def test_bash_completes_verbs_and_options(collector):
    assert said("bash", "-n", collector.files / COMPLETION) == ""
    assert set(verbs_of(collector)) <= set(offered(collector, "kaq", ""))
    assert offered(collector, "kaq", "fi") == ["find"]
    assert offered(collector, "kaq", "config", "ch") == ["check"]
    assert offered(collector, "kaq", "find", "--slo") == ["--slowest"]
    assert offered(collector, "kaq", "find", "--store", "fir") == ["first"]
    assert offered(collector, "kaq", "find", "--since", "") == []


def test_the_unit_is_sandboxed(collector):
    said("systemd-analyze", "security", "--offline=yes", "--threshold=50", collector.files / UNIT)
    unit = (collector.files / UNIT).read_text()
    for line in ("Type=notify", "User=kaq", "Restart=on-failure", "NoNewPrivileges=yes",
                 "ProtectSystem=strict", "CapabilityBoundingSet="):
        assert line + "\n" in unit
    assert re.search(r"^WatchdogSec=\d+s$", unit, re.M)


def test_the_configuration_has_every_setting_in_comments(collector, tmp_path):
    program = collector.files / "usr/bin/kaq"
    shipped = collector.files / "etc/kaq/collector.toml"
    said(program, "config", "check", "--config", shipped)
    assert not re.search(r"^[a-z_]+ *=", shipped.read_text(), re.M)
    snippet = tmp_path / "snippet.html"
    snippet.write_text("<script></script>")
    text = re.sub(r"^# (\[\[|[a-z_]+ = )", r"\1", shipped.read_text(), flags=re.M)
    text = text.replace("/etc/kaq/snippet.html", str(snippet))
    whole = tmp_path / "collector.toml"
    whole.write_text(text)
    said(program, "config", "check", "--config", whole)
    document = (SOURCES / "docs/collector.md").read_text()
    table = document.partition("| Setting | Default |")[2].partition("\n\n")[0]
    known = {name for row in re.findall(r"^\| (`.*?) \|", table, re.M)
             for name in re.findall(r"`(\w+)`", row)}
    assert len(known) > 30
    assert known <= set(re.findall(r"^(\w+) =", text, re.M))


def test_the_ini_file_has_every_setting_with_its_default(extension):
    module = next((extension.files / "usr/lib/php").glob("*/kaq.so"))
    told = json.loads(said("php8.2", "-n", "-d", "extension=%s" % module, "-r",
                           "echo json_encode(ini_get_all('kaq', false));"))
    assert len(told) > 20
    text = (extension.files / INI).read_text()
    assert re.findall(r"^[^;\n].*", text, re.M) == ["extension=kaq.so"]
    written = dict(re.findall(r"^;(kaq\.\w+) =[ ]?(.*)$", text, re.M))
    assert written == {name: value or "" for name, value in told.items()}


def test_the_source_archive_is_the_same_each_time():
    first, again = one("first/kaq-*.tar.gz"), one("again/kaq-*.tar.gz")
    assert first.name == again.name
    assert first.read_bytes() == again.read_bytes()


@pytest.fixture(scope="module")
def unpacked(tmp_path_factory):
    archive = one("first/kaq-*.tar.gz")
    directory = tmp_path_factory.mktemp("sources")
    with tarfile.open(archive) as tar:
        assert {member.name.split("/")[0] for member in tar.getmembers()} == {archive.name[:-7]}
        tar.extractall(directory)
    return directory / archive.name[:-7]


def test_the_source_archive_has_what_a_build_needs(unpacked):
    package = json.loads((unpacked / "composer.json").read_text())
    assert (unpacked / package["php-ext"]["build-path"] / "config.m4").is_file()
    assert os.access(unpacked / "script/package", os.X_OK)


def test_sources_without_git_know_their_commit(unpacked):
    script = ('set -euo pipefail; source script/lib/log.sh; source script/lib/package_files.sh; '
              'kaq_commit; kaq_package_version')
    done = subprocess.run(["bash", "-c", script], cwd=unpacked, capture_output=True, text=True,
                          timeout=SECONDS, env={**os.environ, "GIT_DIR": "/dev/null"})
    assert done.returncode == 0, done.stderr
    commit, version = done.stdout.split("\n")[:2]
    assert re.fullmatch(r"\d+ [0-9a-f]{40}", commit)
    assert commit.split()[1][:8] in version or "+" not in version
    assert unpacked.name == "kaq-" + version
