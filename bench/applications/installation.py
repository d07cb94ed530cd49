"""One application on one engine: unpacked, installed, and able to go back to how it was then."""
import pathlib
import shutil
import subprocess

import engines
import loopback
import processes
from database import Database
from private_root import hand_over
from servers import KINDS

# Loaded where they are not built in, in this order: some need those before them.
_MODULES = ("mysqlnd", "ctype", "curl", "dom", "exif", "fileinfo", "gd", "iconv", "intl", "json",
            "mbstring", "mysqli", "pdo", "pdo_mysql", "posix", "simplexml", "tokenizer", "xml",
            "xmlreader", "xmlwriter")
# Before those that need it.
_FIRST = {"mysqlnd": 0, "xml": 1, "dom": 2}
_PROFILERS = ("excimer", "tideways_xhprof", "xdebug")
_INI = """
memory_limit = 256M
date.timezone = UTC
error_reporting = 32767
display_errors = Off
html_errors = Off
log_errors = On
error_log = {log}
sendmail_path = /bin/true
session.save_path = {sessions}
session.gc_probability = 0
upload_tmp_dir = {temporary}
sys_temp_dir = {temporary}
upload_max_filesize = 16M
post_max_size = 32M
max_execution_time = 60
include_path = ".:{root}/usr/share/php:/usr/share/php"
"""
_CLI_SECONDS = 300


class Ports:
    """Where variants find a collector: `up` and `snippet` are pairs of status and data port."""

    def __init__(self, up, snippet):
        self.up, self.snippet = up, snippet

    def of(self, variant):
        if variant.collector == "down":
            closed = loopback.free_port()
            return closed, closed
        return self.snippet if variant.collector == "snippet" else self.up


class Site:
    """Made for an application (see wordpress.py) and an engine. `ports` may be set anew before the
    servers of a variant are started."""

    def __init__(self, root, application, engine, probe, kind):
        self.root, self.application, self.engine, self.kind = root, application, engine, kind
        self._probe = probe
        self.ports = None
        self.documents = root / application.documents
        self.front = application.front
        self.temporary = root.directory("temporary", 0o777)
        self.sessions = root.directory("sessions", 0o700)
        self.profiles = root.directory("profiles", 0o777)
        library = "%s/usr/lib/x86_64-linux-gnu" % root.path
        self.environment = {"LD_LIBRARY_PATH": library}
        self.modules = self._find_modules()
        self.database = Database()

    def _find_modules(self):
        """{name: path} of those to be loaded."""
        told = engines.run([self.engine.php, "-n", "-m"]).stdout.decode().lower().split()
        found = {}
        names = sorted(_MODULES, key=lambda name: _FIRST.get(name, 9)) + ["opcache", *_PROFILERS]
        for name in names:
            places = (pathlib.Path(self.engine.extension_dir),
                      self.root / self.engine.extension_dir.lstrip("/"))
            path = next((place / (name + ".so") for place in places
                         if (place / (name + ".so")).exists()), None)
            if path and name not in told:
                found[name] = path
        return found

    @property
    def sees_request_headers(self):
        return self.kind != "fpm" or self.engine.fpm_has_getallheaders

    def empty(self, path):
        """A file that the servers' processes may write to."""
        path.write_bytes(b"")
        hand_over(path)

    def ini(self, variant, log):
        """The php.ini of a variant."""
        lines = [_INI.format(log=log, sessions=self.sessions, temporary=self.temporary,
                             root=self.root.path)]
        lines += ["extension = %s" % path for name, path in self.modules.items()
                  if name != "opcache" and name not in _PROFILERS]
        if variant.has_opcache and "opcache" in self.modules:
            lines.append("zend_extension = %s" % self.modules["opcache"])
        if variant.prepend:
            prepend = self.root.write("prepend-%s.php" % variant.name, variant.prepend)
            lines.append("auto_prepend_file = %s" % prepend)
        if variant.extension == "kaq":
            status, data = self.ports.of(variant)
            lines += ["extension = %s" % self.engine.so, "kaq.status_port = %d" % status,
                      "kaq.data_port = %d" % data]
        elif variant.extension == "probe":
            lines.append("extension = %s" % self._probe)
        elif variant.extension:
            zend = "zend_" if variant.extension == "xdebug" else ""
            lines.append("%sextension = %s" % (zend, self.modules[variant.extension]))
        lines += ["%s = %s" % (key, value.format(profiles=self.profiles))
                  for key, value in variant.settings]
        return "\n".join(lines) + "\n"

    def serve(self, variant):
        """Servers, running, of a variant; whoever calls stops them."""
        return KINDS[self.kind](self, variant, self.root.path / ("on-" + variant.name))

    def run_php(self, bare, script, *arguments):
        """A command-line run without the extension, which has to succeed."""
        ini = self.root.write("cli.ini", self.ini(bare, self.temporary / "cli.log"))
        done = subprocess.run(
            [self.engine.php, "-c", str(ini), str(script), *arguments], cwd=self.documents,
            env=engines.environment(self.environment), stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=_CLI_SECONDS)
        if done.returncode != 0:
            raise processes.Failure("%s: %s" % (script, done.stdout.decode(errors="replace")[-2000:]))
        self.hand_over()
        return done.stdout.decode(errors="replace")

    def _written(self):
        return [self.root / name for name in self.application.written] + [self.sessions]

    def hand_over(self):
        for path in self._written():
            hand_over(path)

    def keep(self):
        """Remembers how it is: the database and all that the application may write."""
        self.hand_over()
        self.database.keep()
        for index, path in enumerate(self._written()):
            shutil.copytree(path, self._kept(index), symlinks=True)

    def _kept(self, index):
        return self.root / ("kept-%d" % index)

    def restore(self):
        self.database.restore()
        for index, path in enumerate(self._written()):
            shutil.rmtree(path)
            shutil.copytree(self._kept(index), path, symlinks=True)
        self.hand_over()

    def close(self):
        self.database.close()
