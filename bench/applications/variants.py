"""What is held against the bare engine: settings of php.ini, and a collector that answers or not."""
import collections

KEY = "the-key-of-the-account-of-the-bench-K7d9Qw3xZ1Lm"

# extension: "kaq", "probe", a profiler's module, or "". collector: "up", "down", "snippet" or "".
# base: what its cost is held against. like: whose pages it must have; where that one differs from
# the bare engine, so may this one. is_checked: its pages are compared. minimum: the oldest
# engine, as PHP_VERSION_ID. others: see _row.
Variant = collections.namedtuple(
    "Variant", "name title extension collector settings base like is_checked has_opcache prepend "
               "minimum environment")


def _row(name, title, extension="", collector="", settings=(), base="bare", like="",
         is_checked=True, has_opcache=True, prepend="", minimum=0, environment=None):
    """prepend: PHP text that runs before each page. environment: of the servers' processes."""
    return Variant(name, title, extension, collector, tuple(settings), base, like or base,
                   is_checked, has_opcache, prepend, minimum, environment or {})


_JIT = (("opcache.jit_buffer_size", "64M"), ("opcache.jit", "tracing"))

_EXCIMER = """<?php
$kaq_profiler = new ExcimerProfiler();
$kaq_profiler->setPeriod(0.01);
$kaq_profiler->setEventType(EXCIMER_REAL);
$kaq_profiler->start();
register_shutdown_function(function () use ($kaq_profiler) {
    $kaq_profiler->stop();
    $kaq_profiler->getLog()->formatCollapsed();
});
"""
_TIDEWAYS = """<?php
tideways_xhprof_enable(TIDEWAYS_XHPROF_FLAGS_CPU | TIDEWAYS_XHPROF_FLAGS_MEMORY);
register_shutdown_function(function () {
    json_encode(tideways_xhprof_disable());
});
"""

BARE, AGAIN, LAST = "bare", "bare-again", "bare-last"

# The order in which pages are compared; bare runs at both ends, so that what drifts with the time
# of day is noise, too.
VARIANTS = collections.OrderedDict((row.name, row) for row in (
    _row(BARE, "bare engine"),
    _row(AGAIN, "bare engine again (noise)"),
    _row("chain", "hook that only chains", "probe", settings=[("probe.mode", "chain")]),
    _row("gated", "hook with two gated reads", "probe", settings=[("probe.mode", "gated")]),
    _row("down", "kaq, collector absent", "kaq", "down"),
    _row("monitored", "kaq, monitored", "kaq", "up"),
    _row("traced", "kaq, monitored and traced", "kaq", "up",
         [("kaq.capture_distributed_trace", "1")], environment={"KAQ_ACCOUNT_KEY": KEY}),
    # The snippet passes pages through a buffer, which a script can notice by itself.
    _row("buffered", "bare engine, output buffered", settings=[("output_buffering", "65536")]),
    _row("snippet", "kaq, monitored, snippet on", "kaq", "snippet", like="buffered"),
    _row("nocache", "bare engine, opcache off", has_opcache=False),
    _row("nocache-monitored", "kaq, monitored, opcache off", "kaq", "up", base="nocache",
         has_opcache=False),
    _row("jit", "bare engine, JIT on", settings=_JIT, minimum=80000),
    _row("jit-monitored", "kaq, monitored, JIT asked for", "kaq", "up", _JIT, "jit",
         minimum=80000),
    _row("jit-calls", "kaq, JIT on, no user functions", "kaq", "up",
         [*_JIT, ("kaq.track_zend_execute", "0")], "jit", minimum=80000),
    _row("excimer", "excimer, a sample each 10 ms", "excimer", is_checked=False,
         prepend=_EXCIMER),
    _row("tideways", "tideways_xhprof, CPU and memory", "tideways_xhprof", is_checked=False,
         prepend=_TIDEWAYS),
    _row("xdebug", "xdebug, profiling", "xdebug", is_checked=False,
         settings=[("xdebug.mode", "profile"), ("xdebug.start_with_request", "yes"),
                   ("xdebug.output_dir", "{profiles}"), ("xdebug.use_compression", "0"),
                   ("xdebug.profiler_output_name", "profile.%p")]),
    _row(LAST, "bare engine, last (noise)"),
))


def is_monitored(variant):
    return variant.collector in ("up", "snippet")


def is_traced(variant):
    return "KAQ_ACCOUNT_KEY" in variant.environment


def is_possible(variant, engine, modules):
    """modules: the paths of what may be loaded besides what is built in."""
    if engine.version_id < variant.minimum:
        return False
    return variant.extension in ("", "kaq", "probe") or variant.extension in modules
