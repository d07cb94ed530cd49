"""MariaDB, PostgreSQL, Redis and memcached of the tests' own: on loopback, on a free port, in a
temporary directory, never as root and apart from any service of the machine."""
import os
import shutil
import signal
import socket
import subprocess
import tempfile
import time

from loopback import SEARCH, ends_with_parent, free_port, program

START_DEADLINE = 60.0
STOP_DEADLINE = 20.0

DATABASE, USER, PASSWORD = "shop", "clerk", "secret"


def _identity():
    """Whom a server runs as: some refuse to run as root."""
    if os.geteuid() != 0:
        return {}
    return {"user": "nobody", "group": "nogroup", "extra_groups": []}


class Server:
    """`port`, and `socket` where there is one, are valid from the constructor's return to close().

    `stop_signal` ends the server without waiting for its clients; it is also sent when the test
    run itself dies.
    """

    stop_signal = signal.SIGTERM
    socket = None

    def __init__(self):
        self.directory = tempfile.mkdtemp(prefix="kaq-servers-")
        self.log_path = os.path.join(self.directory, "log")
        self.process = None
        if os.geteuid() == 0:
            shutil.chown(self.directory, "nobody", "nogroup")
        try:
            self.prepare()
            self._start()
        except BaseException:
            self.close()
            raise

    def path(self, name):
        return os.path.join(self.directory, name)

    def run(self, *command, **arguments):
        """A tool that must end well, as the server's user."""
        done = subprocess.run(
            command, cwd=self.directory, env=self._environment(), timeout=START_DEADLINE,
            stdout=subprocess.PIPE, stderr=subprocess.STDOUT, stdin=subprocess.DEVNULL,
            **_identity(), **arguments)
        assert done.returncode == 0, (command, done.stdout.decode("utf-8", "replace"))

    def _environment(self):
        return {"PATH": SEARCH, "HOME": self.directory, "LC_ALL": "C", "TMPDIR": self.directory}

    def _start(self):
        """A free port may be taken by somebody else before the server has it: tried again."""
        for _ in range(3):
            self.port = free_port()
            with open(self.log_path, "ab") as log:
                self.process = subprocess.Popen(
                    self.command(), cwd=self.directory, env=self._environment(), stdout=log,
                    stderr=log, stdin=subprocess.DEVNULL,
                    preexec_fn=ends_with_parent(self.stop_signal), **_identity())
            deadline = time.monotonic() + START_DEADLINE
            while self.process.poll() is None and time.monotonic() < deadline:
                if self.is_ready():
                    return
                time.sleep(0.02)
            self._stop()
        with open(self.log_path, encoding="utf-8", errors="replace") as log:
            raise AssertionError("%s did not start: %s" % (self.command()[0], log.read()[-3000:]))

    def _stop(self):
        if self.process and self.process.poll() is None:
            self.process.send_signal(self.stop_signal)
            try:
                self.process.wait(STOP_DEADLINE)
            except subprocess.TimeoutExpired:
                self.process.kill()
                self.process.wait(STOP_DEADLINE)
        self.process = None

    def close(self):
        self._stop()
        shutil.rmtree(self.directory, ignore_errors=True)

    def prepare(self):
        pass

    def command(self):
        raise NotImplementedError

    def is_ready(self):
        raise NotImplementedError

    def answers(self, request, beginning):
        """Whether the port answers `request` with something that begins so."""
        try:
            with socket.create_connection(("127.0.0.1", self.port), timeout=1) as connection:
                connection.sendall(request)
                return connection.recv(64).startswith(beginning)
        except OSError:
            return False


class MariaDb(Server):
    def prepare(self):
        server = program("mariadbd")
        self.socket = self.path("server.sock")
        self.run(program("mariadb-install-db"), "--no-defaults", "--datadir=" + self.path("data"),
                 "--auth-root-authentication-method=normal", "--skip-test-db",
                 "--skip-name-resolve", "--innodb-log-file-size=4M")
        with open(self.path("init.sql"), "w", encoding="ascii") as file:
            for statement in (
                    "CREATE DATABASE %s" % DATABASE,
                    "CREATE USER %s@'127.0.0.1' IDENTIFIED BY '%s'" % (USER, PASSWORD),
                    "CREATE USER %s@localhost IDENTIFIED BY '%s'" % (USER, PASSWORD),
                    "GRANT ALL ON %s.* TO %s@'127.0.0.1'" % (DATABASE, USER),
                    "GRANT ALL ON %s.* TO %s@localhost" % (DATABASE, USER)):
                file.write(statement + ";\n")
        self._server = server

    def command(self):
        return [self._server, "--no-defaults", "--datadir=" + self.path("data"),
                "--socket=" + self.socket, "--port=%d" % self.port, "--bind-address=127.0.0.1",
                "--pid-file=" + self.path("pid"), "--init-file=" + self.path("init.sql"),
                "--skip-name-resolve", "--innodb-buffer-pool-size=16M",
                "--innodb-log-file-size=4M", "--innodb-flush-log-at-trx-commit=0"]

    def is_ready(self):
        """Its greeting: a packet of number 0 that begins with protocol version 10."""
        try:
            with socket.create_connection(("127.0.0.1", self.port), timeout=1) as connection:
                return connection.recv(64)[3:5] == b"\0\n"
        except OSError:
            return False


class PostgreSql(Server):
    # The shutdown that waits for no client.
    stop_signal = signal.SIGINT

    def prepare(self):
        self._server, self._asks = program("postgres"), program("pg_isready")
        self.run(program("initdb"), "-D", self.path("data"), "-U", USER, "-A", "trust",
                 "-E", "UTF8", "--no-sync")
        self.socket = self.directory

    def command(self):
        return [self._server, "-D", self.path("data"), "-p", str(self.port), "-F",
                "-c", "listen_addresses=127.0.0.1", "-c", "unix_socket_directories=" + self.socket,
                "-c", "max_connections=20", "-c", "shared_buffers=8MB"]

    def is_ready(self):
        return subprocess.run(
            [self._asks, "-q", "-h", "127.0.0.1", "-p", str(self.port), "-t", "5"],
            env=self._environment(), stdin=subprocess.DEVNULL, timeout=20).returncode == 0


class Redis(Server):
    def prepare(self):
        self._server = program("redis-server")
        self.socket = self.path("server.sock")

    def command(self):
        return [self._server, "--port", str(self.port), "--bind", "127.0.0.1",
                "--unixsocket", self.socket, "--unixsocketperm", "777", "--dir", self.directory,
                "--save", "", "--appendonly", "no", "--daemonize", "no"]

    def is_ready(self):
        return self.answers(b"PING\r\n", b"+PONG")


class Memcached(Server):
    def prepare(self):
        self._server = program("memcached")

    def command(self):
        return [self._server, "-l", "127.0.0.1", "-p", str(self.port), "-U", "0", "-m", "16",
                "-t", "2"]

    def is_ready(self):
        return self.answers(b"version\r\n", b"VERSION")
