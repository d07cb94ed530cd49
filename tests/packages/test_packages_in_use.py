"""The life of both packages in a fresh root: installed, used, upgraded, removed, purged. The tests
follow on each other, in the order in which they stand."""
import configparser
import json
import re
import shlex
import signal
import socket

import pytest

from conftest import SECONDS, one

# {name of the interface: its port and page}.
SERVERS = {"apache2handler": (80, "/apache.php"), "fpm-fcgi": (8080, "/fpm.php")}
SITE = """
Listen %(port)d
<VirtualHost *:%(port)d>
	DocumentRoot /var/www/html
	<FilesMatch "\\.php$">
		SetHandler "proxy:unix:/run/php/php8.2-fpm.sock|fcgi://localhost"
	</FilesMatch>
</VirtualHost>
"""
PAGE = "<?php function work() { usleep(20000); return 'page of ' . PHP_SAPI; } echo work();"
INTERFACES = ("apache2", "cgi", "cli", "fpm")


def prepare(root):
    """A site that both PHP of Apache and FPM serve."""
    for _, page in SERVERS.values():
        root.path("var/www/html" + page).write_text(PAGE)
    port = SERVERS["fpm-fcgi"][0]
    root.path("etc/apache2/sites-available/fpm.conf").write_text(SITE % {"port": port})
    root.run("a2enmod", "-q", "proxy_fcgi")
    root.run("a2ensite", "-q", "fpm")
    root.path("run/php").mkdir(exist_ok=True)


@pytest.fixture(scope="module")
def before(root):
    """What is there before anything is installed."""
    prepare(root)
    return root.files()


class Service:
    """The collector as its unit starts it, with this test as its manager."""

    def __init__(self, root):
        unit = configparser.ConfigParser(strict=False, interpolation=None)
        unit.optionxform = str
        # A name that comes twice keeps its last value: what is to be reloaded, the check before it aside.
        unit.read(root.path("lib/systemd/system/kaq.service"))
        self.root, self.unit = root, unit["Service"]
        self.manager = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        path = root.path("run/notify")
        path.unlink(missing_ok=True)
        self.manager.bind(str(path))
        path.chmod(0o666)
        self.manager.settimeout(SECONDS)
        seconds = int(self.unit["WatchdogSec"].rstrip("s"))
        self.process = root.start(
            "env", "NOTIFY_SOCKET=/run/notify", "WATCHDOG_USEC=%d" % (seconds * 1000000),
            *shlex.split(self.unit["ExecStart"]), user=self.unit["User"])
        self.wait("READY=1")

    def wait(self, wanted):
        """Until the manager was told that."""
        told = ""
        while not re.search("^" + wanted, told, re.M):
            told += self.manager.recv(4096).decode() + "\n"
        return told

    def number(self):
        return self.root.run("pidof", "kaq")[0].strip()

    def reload(self):
        self.root.run(*shlex.split(self.unit["ExecReload"].replace("$MAINPID", self.number())))

    def end(self):
        """(its exit status, what it said)."""
        self.root.run("kill", "-TERM", self.number())
        said = self.process.communicate(timeout=SECONDS)[0]
        self.manager.close()
        return self.process.returncode, said


class Servers:
    """FPM and Apache, while a test needs them."""

    def __init__(self, root):
        self.root = root
        self.running = [root.start("php-fpm8.2", "--nodaemonize"),
                        root.start("sh", "-c", ". /etc/apache2/envvars; mkdir -p $APACHE_RUN_DIR "
                                   "$APACHE_LOCK_DIR; exec apache2 -D FOREGROUND")]

    def __enter__(self):
        return self

    def __exit__(self, *_):
        for program in ("apache2", "php-fpm8.2"):
            numbers = self.root.run("pidof", program)[0].split()
            self.root.run("kill", "-" + signal.SIGTERM.name[3:], *numbers)
        for process in self.running:
            process.communicate(timeout=SECONDS)

    def page(self, interface):
        """What a browser would show; asked for by a PHP without settings, which nothing records."""
        url = "http://127.0.0.1:%d%s" % SERVERS[interface]
        return self.root.run("php8.2", "-n", "-r", "echo @file_get_contents($argv[1]);", url)[0]


def found(root, query):
    """The requests that `kaq find` finds."""
    return json.loads(root.run("sh", "-c", 'kaq find --json "$0" || true', query)[0])["requests"]


def recorded(root, servers, interface):
    """A request of its page, which is asked for until the collector has one."""
    def look():
        assert servers.page(interface) == "page of " + interface
        return found(root, "path:" + SERVERS[interface][1])
    root.until(lambda: servers.page(interface))
    return root.until(look, 60)[0]


def test_they_install_where_no_systemd_runs(root, before, collector, extension):
    root.install(collector.path, extension.path)
    facts = {name: root.run("stat", "-c", "%U:%G %a", name)[0].strip() for name in
             ("/var/lib/kaq", "/etc/kaq/collector.toml", "/opt/kaq/logs/crash")}
    assert facts == {"/var/lib/kaq": "kaq:kaq 710", "/etc/kaq/collector.toml": "root:kaq 640",
                     "/opt/kaq/logs/crash": "www-data:kaq 2750"}
    wanted = "etc/systemd/system/multi-user.target.wants/kaq.service"
    assert root.path(wanted).is_symlink()
    for interface in INTERFACES:
        assert root.path("etc/php/8.2/%s/conf.d/20-kaq.ini" % interface).is_symlink()
    for program in ("php8.2", "php-cgi8.2", "php-fpm8.2"):
        said, mistakes = root.run(program, "-m")
        assert "\nkaq\n" in said and mistakes == ""


def test_the_unit_is_one_that_systemd_takes(root):
    assert root.run("systemd-analyze", "verify", "--man=no",
                    "/lib/systemd/system/kaq.service") == ("", "")


def test_the_tmpfiles_keep_what_postinst_made(root):
    crash = root.path("opt/kaq/logs/crash")
    crash.chmod(0o700)
    root.run("systemd-tmpfiles", "--create", "kaq-collector.conf")
    assert crash.stat().st_mode & 0o7777 == 0o2750


@pytest.fixture(scope="module")
def service(root):
    return Service(root)


def test_the_unit_starts_the_collector_and_hears_of_it(root, service):
    service.wait("WATCHDOG=1")
    service.reload()
    service.wait("RELOADING=1")
    service.wait("READY=1")
    assert "no mistake" in root.run("kaq", "config", "check")[0]
    assert root.run("stat", "-c", "%U:%G %a", "/var/lib/kaq/collector.sock")[0] == "kaq:kaq 660\n"


def test_pages_of_both_servers_are_found(root, service):
    with Servers(root) as servers:
        for interface in SERVERS:
            request = recorded(root, servers, interface)
            assert "work" in root.run("kaq", "show", request["id"])[0]


def test_others_see_nothing_of_it(root, service):
    for name in ("/var/lib/kaq/token", "/etc/kaq/collector.toml", "/opt/kaq/logs/crash"):
        root.run("test", "-r", name, user="nobody", status=1)
    root.run("kaq", "find", user="nobody", status=1)


def test_the_collector_reads_what_a_crash_leaves(root, service):
    root.run("php8.2", "-r", "kaq_debug_crash();", user="www-data", status=-11)
    log = root.until(lambda: list(root.path("opt/kaq/logs/crash").glob("kaqcrash-*.log")))[0]
    root.run("cat", "/" + str(log.relative_to(root.directory)), user="kaq")
    # It ends with a status that tells of problems, and looks at logs that are a second old.
    root.until(lambda: "1 crash in the last 24 hours" in
               root.run("sh", "-c", "kaq doctor || true")[0])


def test_an_upgrade_keeps_requests_and_settings(root, service):
    many = len(found(root, ""))
    settings = root.path("etc/kaq/collector.toml")
    changed = settings.read_text().replace('# size_cap = "2GiB"', 'size_cap = "3GiB"')
    assert changed != settings.read_text()
    settings.write_text(changed)
    root.run("phpdismod", "-s", "cgi", "kaq")
    assert service.end()[0] == 0
    old = root.run("dpkg-query", "-W", "-f", "${Version}", "kaq-collector")[0]
    root.install(one("second/kaq-collector_*.deb"), one("second/php8.2-kaq_*.deb"))
    assert root.run("dpkg-query", "-W", "-f", "${Version}", "kaq-collector")[0] != old
    assert settings.read_text() == changed
    assert root.run("stat", "-c", "%U:%G %a", "/etc/kaq/collector.toml")[0] == "root:kaq 640\n"
    assert not root.path("etc/php/8.2/cgi/conf.d/20-kaq.ini").exists()
    assert root.path("etc/php/8.2/fpm/conf.d/20-kaq.ini").is_symlink()
    again = Service(root)
    assert len(found(root, "")) == many > 1
    assert again.end()[0] == 0


def test_removed_they_leave_settings_and_requests_and_pages_work(root):
    root.run("dpkg", "--remove", "php8.2-kaq", "kaq-collector")
    assert root.run("dpkg", "--audit") == ("", "")
    assert root.path("etc/kaq/collector.toml").exists() and root.path("var/lib/kaq/token").exists()
    assert not root.path("lib/systemd/system/kaq.service").exists()
    for interface in INTERFACES:
        assert not root.path("etc/php/8.2/%s/conf.d/20-kaq.ini" % interface).exists()
    for program in ("php8.2", "php-cgi8.2", "php-fpm8.2"):
        said, mistakes = root.run(program, "-m")
        assert "\nkaq\n" not in said and mistakes == ""
    with Servers(root) as servers:
        for interface in SERVERS:
            assert root.until(lambda: servers.page(interface)) == "page of " + interface


def test_purged_they_leave_nothing(root, before):
    root.run("dpkg", "--purge", "php8.2-kaq", "kaq-collector")
    assert root.run("dpkg", "--audit") == ("", "")
    root.run("id", "kaq", status=1)
    after = root.files()
    assert {name: what for name, what in after.items() if before.get(name) != what} == {}
    assert set(before) - set(after) == set()
