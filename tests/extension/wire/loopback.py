"""What the servers that tests start have in common: where their programs stand, a free port, an
end with the test run, and how Apache is told of the engine."""
import ctypes
import glob
import pathlib
import shutil
import socket

# Debian keeps servers and their tools where an unprivileged PATH does not look.
SEARCH = "/usr/sbin:/usr/bin:/sbin:/bin"
PR_SET_PDEATHSIG = 1
# Loaded here: between fork and exec nothing may take a lock.
LIBC = ctypes.CDLL(None)

APACHE_MODULES = pathlib.Path("/usr/lib/apache2/modules")
APACHE = """
ServerRoot "{directory}"
ServerName 127.0.0.1
Listen 127.0.0.1:{port}
PidFile "{directory}/pid"
DefaultRuntimeDir "{directory}"
Mutex pthread
User nobody
Group nogroup
LoadModule mpm_{model}_module "{modules}/mod_mpm_{model}.so"
LoadModule authz_core_module "{modules}/mod_authz_core.so"
LoadModule {engine_name} "{engine_path}"
PHPIniDir "{directory}"
DocumentRoot "{directory}/pages"
SetHandler application/x-httpd-php
ErrorLog "{directory}/server.log"
StartServers 1
KeepAlive Off
Timeout 30
"""


class Unavailable(Exception):
    """The server's program is not installed."""


def program(name):
    found = shutil.which(name, path=SEARCH)
    if not found:
        versions = sorted(glob.glob("/usr/lib/postgresql/*/bin/" + name),
                          key=lambda path: float(path.split("/")[4]))
        found = versions[-1] if versions else None
    if not found:
        raise Unavailable("%s is not installed" % name)
    return found


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def ends_with_parent(number):
    """What a process runs before its program, to be sent that signal when the test run dies."""
    return lambda: LIBC.prctl(PR_SET_PDEATHSIG, int(number), 0, 0, 0)


def apache_configuration(engine, model, directory, port):
    """The beginning of a configuration for a process model, for an engine that has a module."""
    name, path = engine.apache_module
    return APACHE.format(directory=directory, port=port, model=model, modules=APACHE_MODULES,
                         engine_name=name, engine_path=path)
