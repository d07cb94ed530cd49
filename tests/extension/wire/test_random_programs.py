"""Random programs of every kind of call, with errors, exceptions and wrapped calls in between,
against a model in which each call has its span from the start. The seed is part of the test's
name."""
import os
import random

import curl_runs
import pytest
import span_model

KEEP, DROP = "0", "99999"
SEEDS = [int(seed) for seed in os.environ.get("KAQ_WIRE_SEEDS", "").split()] or list(range(40))
MOST_ERRORS = 10

NOTICE, THROW, WRAPPED = "notice", "throw", "wrapped"
STATEMENTS = {
    NOTICE: "trigger_error('x', E_USER_NOTICE); ",
    THROW: "try { throw new Exception('x'); } catch (Exception $e) {} ",
    WRAPPED: "curl_multi_close(curl_multi_init()); ",
}


class Call:
    """One call: what it does, in order, and the threshold that holds when it ends."""

    def __init__(self, number, kind, steps, threshold):
        self.number, self.kind, self.steps, self.threshold = number, kind, steps, threshold

    def body(self):
        steps = [step.statement() if isinstance(step, Call) else STATEMENTS[step]
                 for step in self.steps]
        return "{ %sini_set('kaq.method_threshold', '%s'); }" % ("".join(steps), self.threshold)

    def statement(self):
        return {
            "function": "f%d(); ",
            "static": "C%d::run(); ",
            "method": "(new C%d)->run(); ",
            "closure": "$f = closure%d(); $f(); unset($f); ",
            "callback": "array_map('f%d', array(1)); ",
            "evald": "eval('e%d();'); ",
            "magic": "$name = 'run' . mt_rand(7, 7); (new C%d)->$name(); ",
        }[self.kind] % self.number

    def definition(self):
        number, body = self.number, self.body()
        text = {
            "function": "function f%d() %s",
            "static": "class C%d { static function run() %s }",
            "method": "class C%d { function run() %s }",
            # The function that makes it is a short call of its own.
            "closure": "function closure%d() { return function () %s; }",
            "callback": "function f%d() %s",
            "magic": "class C%d { function __call($name, $arguments) %s }",
        }
        if self.kind == "evald":
            source = "function e%d() %s" % (number, body)
            return "eval('%s');" % source.replace("\\", "\\\\").replace("'", "\\'")
        return text[self.kind] % (number, body)

    def everything(self):
        return self.definition() + "\n" + "".join(step.everything() for step in self.steps
                                                  if isinstance(step, Call))

    def name(self):
        return {"function": "f%d", "static": "C%d::run", "method": "C%d::run",
                "closure": "{closure}", "callback": "f%d", "evald": "e%d",
                "magic": "C%d::__call"}[self.kind] % (
                    () if self.kind == "closure" else (self.number,))


KINDS = ("function", "function", "static", "method", "closure", "callback", "evald", "magic")


def random_steps(chance, depth, numbers):
    count = chance.choice((0, 1, 1, 2, 3, 4)) if depth else chance.randint(2, 6)
    if depth > 10 or numbers[0] > 120:
        count = 0
    steps = []
    for _ in range(count):
        kind = chance.choice((NOTICE, THROW, WRAPPED) + ("call",) * 9)
        if kind != "call":
            steps.append(kind)
            continue
        numbers[0] += 1
        number = numbers[0]
        steps.append(Call(number, chance.choice(KINDS), random_steps(chance, depth + 1, numbers),
                          chance.choice((KEEP, DROP, DROP, DROP))))
    return steps


class Model(span_model.Spans):
    """Marks spans as errors do, and follows what each statement does."""

    def __init__(self, limit, tells_magic_calls):
        super().__init__(limit)
        self.tells_magic_calls = tells_magic_calls
        self.errors, self.threshold = 0, DROP

    def call(self, name, parent, run):
        """One span around what `run` does with it, or none when the limit is reached."""
        span = self.open(name, parent) if self.has_room() else None
        run(span or parent)
        if span:
            self.close(span, span.marked or self.threshold == KEEP)

    def wrapped(self, parent, name):
        def mark(span):
            span.marked = True
        if self.has_room():
            self.call(name, parent, mark)

    def step(self, step, span):
        if step == NOTICE:
            if self.errors < MOST_ERRORS:
                self.errors += 1
                span.marked, span.error = True, 1
        elif step == THROW:
            span.marked, span.fault = True, 1
        elif step == WRAPPED:
            self.wrapped(span, "curl_multi_init")
            self.wrapped(span, "curl_multi_close")
        else:
            self.run_call(step, span)

    def run_call(self, call, parent):
        def body(span):
            for step in call.steps:
                self.step(step, span)
            self.threshold = call.threshold

        def by_magic(span):
            self.call(call.name(), span, body)

        if call.kind == "closure":
            self.call("closure%d" % call.number, parent, lambda span: None)
        if call.kind == "magic" and self.tells_magic_calls:
            self.call("C%d::run7" % call.number, parent, by_magic)
        else:
            self.call(call.name(), parent, body)


@pytest.fixture(scope="module")
def curl_options(engine):
    return curl_runs.module_options(engine)


@pytest.mark.parametrize("seed", SEEDS)
def test_random_program_is_recorded_like_the_model(wire, collector, engine, curl_options, seed):
    chance = random.Random(seed)
    steps = random_steps(chance, 0, [0])
    limit = chance.choice((10000, 10000, 10000, 40, 5))
    pruned = chance.random() < 0.6
    model = Model(limit, not engine.observes_calls)
    for step in steps:
        model.step(step, model.root)
    model.close(model.root, True)
    if pruned:
        model.prune()
    main = "".join(step.statement() if isinstance(step, Call) else STATEMENTS[step]
                   for step in steps)
    source = "".join(step.everything() for step in steps if isinstance(step, Call)) + main
    path = wire.script("error_reporting(E_ALL); ini_set('display_errors', '0'); " + source, "job.php")
    ran = wire.php(*curl_options, str(path), settings={
        "kaq.method_threshold": DROP, "kaq.span_limit": limit,
        "kaq.prune_intermediate_spans": int(pruned), "kaq.track_errors": 1})
    assert ran.status == 0, ran.stderr
    spans = collector.payload.spans
    assert span_model.rows_of(spans) == model.rows()
