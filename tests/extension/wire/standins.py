"""The stand-in drivers: engine options that load them, and scripts that call through them."""
import json
import os
import subprocess

import engines

_BUILD = """
    set -euo pipefail
    source "$1/script/lib/log.sh"
    source "$1/script/lib/engines.sh"
    source "$1/script/lib/standins.sh"
    kaq_build_standins "$2"
"""

# Classes of instrumented methods, as scripts name them.
CLASSES = ["mysqli", "mysqli_stmt", "PDO", "PDOStatement", "Redis", "Memcache", "Memcached",
           "Cassandra\\DefaultCluster", "Cassandra\\Cluster\\Builder",
           "Cassandra\\DefaultSession", "Cassandra\\BatchStatement",
           "Cassandra\\SimpleStatement"]

# What scripts here begin with: $made, one object of each class whose constructor did not run, and
# tell(), which makes JSON of anything.
PRELUDE = """
    $made = []; $object = new ArrayObject; $resource = kaq_standin_resource();
    foreach (json_decode('%s') as $class) {
        $made[strtolower($class)] = (new ReflectionClass($class))->newInstanceWithoutConstructor();
    }
    function tell($value) {
        if (is_object($value)) { return 'object ' . get_class($value); }
        if (is_resource($value)) { return 'resource'; }
        return is_array($value) ? array_map('tell', $value) : $value;
    }
""" % json.dumps(CLASSES).replace("\\", "\\\\")


def path_of(engine):
    """The module; from the environment, or built."""
    named = os.environ.get("KAQ_STANDINS_SO")
    if named:
        return named
    command = ["bash", "-c", _BUILD, "-", str(engines.REPOSITORY), engine.php_config]
    built = subprocess.run(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, timeout=600,
                           check=True, text=True)
    return built.stdout.split("\n")[-2]


class Standins:
    """Runs command-line scripts with the stand-ins loaded, with or without the extension."""

    def __init__(self, wire, so):
        self.wire, self.so = wire, so

    def run(self, source, settings=None, loaded=True, name="job.php", prelude=PRELUDE,
            first=False):
        """`first`: the stand-ins are loaded before the extension instead of after it."""
        wire = self.wire
        path = source if hasattr(source, "parts") else wire.script(prelude + source, name)
        given = {"kaq_standins.take_over": 1, "kaq.method_threshold": 0, "kaq.track_errors": 0,
                 "kaq.track_exceptions": 0, "html_errors": 0, "display_errors": 1}
        given.update(settings or {})
        options = wire.options(given, loaded)
        module = ["-d", "extension=" + self.so]
        options = options[:1] + module + options[1:] if first else options + module
        return engines.run([wire.engine.php, *options, str(path)])

    def same_as_bare(self, source, settings=None, **arguments):
        bare = self.run(source, settings, loaded=False, **arguments)
        loaded = self.run(source, settings, **arguments)
        assert loaded.outcome == bare.outcome
        return loaded

    def payload(self, source, settings=None, **arguments):
        self.run(source, settings, **arguments)
        return self.wire.collector.payload
