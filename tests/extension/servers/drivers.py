"""Where the drivers stand that an engine can load, and how it is told to load them."""
import os
import pathlib
import subprocess

import engines

# What each driver needs loaded before it, if the engine has it as a module at all.
NEEDS = {
    "mysqli": ["mysqlnd"],
    "pdo_mysql": ["mysqlnd", "pdo"],
    "pdo_pgsql": ["pdo"],
    "pdo_sqlite": ["pdo"],
    "pgsql": [],
    "redis": ["igbinary"],
    "memcached": ["igbinary", "msgpack"],
    "memcache": [],
}


class Missing(Exception):
    """The engine has no such driver; the text says why."""


class Drivers:
    def __init__(self, engine):
        self.engine = engine
        self.is_debug = subprocess.run(
            [engine.php, "-n", "-r", "exit(PHP_DEBUG ? 1 : 0);"], stdin=subprocess.DEVNULL,
            timeout=60, env=engines.environment()).returncode == 1
        listed = subprocess.run([engine.php, "-n", "-m"], capture_output=True, check=True,
                                text=True, stdin=subprocess.DEVNULL, timeout=60,
                                env=engines.environment()).stdout
        self.built_in = {name.lower() for name in listed.split()}
        directory = os.environ.get("KAQ_DRIVERS") or self._provided()
        self.directories = [pathlib.Path(directory), pathlib.Path(engine.extension_dir)]

    def _provided(self):
        """Asks script/drivers, whose last line of output is the directory of the modules."""
        command = [str(engines.REPOSITORY / "script" / "drivers"),
                   "--php-config", self.engine.php_config]
        told = subprocess.run(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                              timeout=900, check=True, text=True)
        return told.stdout.split("\n")[-2]

    def _module(self, name):
        paths = [directory / (name + ".so") for directory in self.directories]
        return next((str(path) for path in paths if path.exists()), None)

    def options(self, *names):
        """Engine options that load the drivers."""
        options, loaded = [], set()
        if self.is_debug and "memcache" in names:
            raise Missing("this driver leaks and breaks its types, as a debug engine reports")
        for driver in names:
            for name in NEEDS[driver] + [driver]:
                path = self._module(name)
                if name in self.built_in or name in loaded:
                    continue
                if path:
                    options += ["-d", "extension=" + path]
                    loaded.add(name)
                elif name == driver:
                    raise Missing(self._reason(driver))
        return options

    def _reason(self, driver):
        told = self.directories[0] / (driver + ".missing")
        if told.exists():
            return told.read_text(encoding="utf-8").strip()
        return "no driver %s for PHP %d" % (driver, self.engine.version_id)
