"""The PHP engine under test: where its binaries are and how a script is run with them."""
import os
import pathlib
import re
import subprocess
import time

import loopback

REPOSITORY = pathlib.Path(__file__).resolve().parents[3]
RUN_DEADLINE = 60.0

# Settings by which a call's span is kept, or dropped, whatever the machine makes of its duration.
KEEP_ALL = {"kaq.method_threshold": 0}
DROP_SHORT = {"kaq.method_threshold": 99999}

# How calls of user code are followed in all tests that do not say it themselves.
TRACKING = os.environ.get("KAQ_TRACK_ZEND_EXECUTE", "1")

# What an instrumented engine (a sanitizer build, Valgrind) needs is passed on to the child.
_PASSED_ON = ("PATH", "HOME", "LD_LIBRARY_PATH", "LD_PRELOAD", "ASAN_OPTIONS", "LSAN_OPTIONS",
              "UBSAN_OPTIONS", "USE_ZEND_ALLOC", "XDG_CACHE_HOME")


class Engine:
    def __init__(self, php_config, so, php, cgi, fpm):
        self.php_config, self.so, self.php, self.cgi, self.fpm = php_config, so, php, cgi, fpm
        asked = subprocess.run(
            [php, "-n", "-r", "echo PHP_VERSION_ID, ' ', (int)PHP_ZTS, ' ', (int)(ini_get("
             "'memory_hard_limit_percent') !== false), ' ',"
             "(int)extension_loaded('Zend OPcache'), ' ', ini_get('extension_dir');"],
            stdin=subprocess.DEVNULL, capture_output=True, timeout=RUN_DEADLINE, check=True,
            text=True, env=environment()).stdout.split()
        self.version_id, self.is_zts = int(asked[0]), asked[1] == "1"
        self.has_hard_memory_limit = asked[2] == "1"
        self.has_opcache_built_in = asked[3] == "1"
        self.extension_dir = asked[4] if len(asked) > 4 else ""

    @property
    def opcache(self):
        """The settings that switch the opcode cache on, or None without one."""
        settings = {"opcache.enable_cli": 1, "opcache.file_update_protection": 0}
        if self.has_opcache_built_in:
            return settings
        # An engine that was moved here has an outdated directory inside.
        for directory in (self.extension_dir, _told(self.php_config, "--extension-dir")):
            path = os.path.join(directory, "opcache.so")
            if os.path.exists(path):
                return dict(settings, zend_extension=path)
        return None

    @property
    def apache_module(self):
        """(name, path) of the module by which Apache has this engine, or None."""
        prefix = pathlib.Path(_told(self.php_config, "--prefix"))
        version = "%d.%d" % divmod(self.version_id // 100, 100)
        name = "php7_module" if version[0] == "7" else "php_module"
        if prefix == pathlib.Path("/usr"):
            paths = [loopback.APACHE_MODULES / ("libphp%s.so" % version)]
        else:
            paths = [prefix / "modules" / ("libphp%s.so" % suffix) for suffix in (version[0], "")]
        return next(((name, path) for path in paths if path.exists()), None)

    @property
    def has_zend_signals(self):
        told = run([self.php, "-n", "-i"]).stdout
        return b"Zend Signal Handling => enabled" in told

    @property
    def can_observe_calls(self):
        """In place of a hook: kaq.track_zend_execute=2."""
        return self.version_id >= 80400

    @property
    def observes_calls(self):
        """Whether all tests do, as the environment says."""
        return self.can_observe_calls and TRACKING == "2"

    @property
    def tracking(self):
        return {"kaq.track_zend_execute": TRACKING} if TRACKING != "1" else {}

    @property
    def has_preloading(self):
        return self.version_id >= 70400 and self.opcache is not None

    @property
    def creating_a_generator_runs_its_function(self):
        return self.version_id >= 70100 and not self.observes_calls

    @property
    def concurrent_requests_corrupt_its_heap(self):
        """Without any extension."""
        return self.version_id < 70100

    @property
    def fpm_has_getallheaders(self):
        return self.version_id >= 70300

    @property
    def disabled_functions_vanish(self):
        return self.version_id >= 80000

    @property
    def exit_is_a_bailout(self):
        return self.version_id < 80000

    @property
    def memory_limit_is_a_bailout(self):
        """Where there is a hard limit besides, the limit unwinds as exit does."""
        return not self.has_hard_memory_limit

    @property
    def keeps_memory_limit(self):
        """Not when memory comes from the C library, as under a sanitizer."""
        return os.environ.get("USE_ZEND_ALLOC") != "0"

    @property
    def failed_parses_throw(self):
        return self.version_id >= 80000

    @property
    def handles_are_objects(self):
        return self.version_id >= 80000

    @property
    def class_of_a_bad_date(self):
        return "DateMalformedStringException" if self.version_id >= 80300 else "Exception"

    @property
    def stack_overflow_is_an_error(self):
        """Of the script, unless zend.max_allowed_stack_size is -1."""
        return self.version_id >= 80300

    @property
    def classes_can_be_disabled(self):
        return self.version_id < 80500

    @property
    def user_errors_are_deprecated(self):
        """Raising one is an error of its own, before it."""
        return self.version_id >= 80400

    @property
    def closures_tell_where_they_stand(self):
        """In their names, instead of the namespace."""
        return self.version_id >= 80400

    @property
    def has_pdo_subclasses(self):
        return self.version_id >= 80400

    @property
    def copying_globals_copies_deeply(self):
        return self.version_id >= 80100


def environment(extra=None):
    env = {name: os.environ[name] for name in _PASSED_ON if name in os.environ}
    env.update(LC_ALL="C", TZ="UTC", PHP_INI_SCAN_DIR="")
    env.update(extra or {})
    return env


def _told(php_config, option):
    return subprocess.run([php_config, option], stdin=subprocess.DEVNULL, capture_output=True,
                          timeout=RUN_DEADLINE, check=True, text=True).stdout.strip()


def _binary(variable, *candidates):
    named = os.environ.get(variable)
    if named:
        return named if os.path.exists(named) else None
    return next((str(c) for c in candidates if os.path.exists(c)), None)


def _built_extension(php_config):
    """Asks script/build, whose last line of output is the path of the module."""
    command = [str(REPOSITORY / "script" / "build"), "--php-config", php_config]
    built = subprocess.run(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                           timeout=900, check=True, text=True)
    return built.stdout.split("\n")[-2]


def find_engine():
    php_config = os.environ.get("KAQ_PHP_CONFIG", "/usr/bin/php-config8.2")
    prefix = pathlib.Path(_told(php_config, "--prefix"))
    so = os.environ.get("KAQ_SO") or _built_extension(php_config)
    assert os.path.exists(so), "no extension at " + so
    suffix = re.search(r"(\d\.\d)?$", php_config).group(0)
    php = _binary("KAQ_PHP", prefix / "bin" / ("php" + suffix), prefix / "bin" / "php")
    assert php, "no php below %s" % prefix
    return Engine(
        php_config, so, php,
        _binary("KAQ_PHP_CGI", prefix / "bin" / ("php-cgi" + suffix), prefix / "bin" / "php-cgi"),
        _binary("KAQ_PHP_FPM", prefix / "sbin" / ("php-fpm" + suffix), prefix / "sbin" / "php-fpm"))


def quoted(value):
    """value as a php.ini string; what double quotes cannot hold goes in single quotes."""
    text = str(value)
    if '"' in text or "\\" in text or "$" in text:
        assert "'" not in text and "\n" not in text, text
        return "'%s'" % text
    return '"%s"' % text


def ini_options(settings):
    """-d options; a value of None leaves the setting alone, "" sets it to the empty string."""
    options = []
    for name, value in settings.items():
        if value is not None:
            options += ["-d", "%s=%s" % (name, quoted(value) if value != "" else "")]
    return options


class Result:
    def __init__(self, stdout, stderr, status, seconds):
        self.stdout, self.stderr, self.status, self.seconds = stdout, stderr, status, seconds

    @property
    def outcome(self):
        """All that a caller of the script can tell."""
        return self.stdout, self.stderr, self.status

    def __repr__(self):
        return "status %s, output %r, errors %r" % (
            self.status, self.stdout[:2000], self.stderr[:2000])


def run(command, env=None, stdin=None, cwd=None):
    started = time.monotonic()
    source = {"input": stdin} if stdin is not None else {"stdin": subprocess.DEVNULL}
    done = subprocess.run(command, capture_output=True, timeout=RUN_DEADLINE, cwd=cwd,
                          env=environment(env), **source)
    return Result(done.stdout, done.stderr, done.returncode, time.monotonic() - started)
