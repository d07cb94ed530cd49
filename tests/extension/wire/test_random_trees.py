"""Random call trees against a model of the span rules. The seed is part of the test's name."""
import os
import random

import pytest

KEEP, DROP = "0", "99999"
SEEDS = [int(seed) for seed in os.environ.get("KAQ_WIRE_SEEDS", "").split()] or list(range(30))


class Call:
    """One call: its children, and the threshold that holds when it is closed."""

    def __init__(self, name, children, threshold):
        self.name, self.children, self.threshold = name, children, threshold

    def source(self):
        body = "".join(child.name + "(); " for child in self.children)
        return "function %s() { %sini_set('kaq.method_threshold', '%s'); }\n%s" % (
            self.name, body, self.threshold, "".join(child.source() for child in self.children))


def random_calls(chance, depth, names):
    count = chance.choice((0, 1, 1, 2, 3)) if depth else chance.randint(1, 6)
    if depth > 12 or names[0] > 150:
        count = 0
    calls = []
    for _ in range(count):
        names[0] += 1
        name = "f%d" % names[0]
        calls.append(Call(name, random_calls(chance, depth + 1, names),
                          chance.choice((KEEP, DROP, DROP))))
    return calls


class Recorded:
    def __init__(self, name, parent, key):
        self.name, self.parent, self.key = name, parent, key
        self.child_count, self.necessary = 0, True


class Model:
    """The rules for opening, closing and pruning, for calls that take no time."""

    def __init__(self, limit):
        self.limit, self.next_key, self.stored = limit, 0, []
        self.root = self.open("main", None)

    def open(self, name, parent):
        span = Recorded(name, parent, self.next_key)
        self.next_key += 1
        if parent:
            parent.child_count += 1
        return span

    def close(self, span, necessary):
        span.necessary = necessary
        if self.next_key == span.key + 1 and not necessary and span.key != 0:
            self.next_key -= 1
            return
        self.stored.append(span)

    def run(self, calls, parent):
        for call in calls:
            span = self.open(call.name, parent) if len(self.stored) < self.limit else None
            self.run(call.children, span or parent)
            if span:
                self.close(span, call.threshold == KEEP)

    def prune(self):
        kept = {id(span) for span in self.stored if span is self.root or span.necessary
                or (span.parent is not None and span.parent.child_count >= 2)}
        for span in self.stored:
            if span.parent is not None:
                while id(span.parent) not in kept:
                    span.parent = span.parent.parent
        self.stored = [span for span in self.stored if id(span) in kept]

    def rows(self):
        """(name, position of the parent) of every span in key order."""
        ordered = sorted(self.stored, key=lambda span: span.key)
        positions = {id(span): position for position, span in enumerate(ordered)}
        return [(span.name, positions.get(id(span.parent))) for span in ordered]


@pytest.mark.parametrize("seed", SEEDS)
def test_random_tree_is_recorded_like_the_model(wire, collector, seed):
    chance = random.Random(seed)
    calls = random_calls(chance, 0, [0])
    limit = chance.choice((10000, 10000, 40, 5, 1))
    pruned = chance.random() < 0.6
    model = Model(limit)
    model.run(calls, model.root)
    model.close(model.root, True)
    if pruned:
        model.prune()
    source = "".join(call.source() for call in calls) + "".join(c.name + "(); " for c in calls)
    wire.cli(source, settings={"kaq.method_threshold": DROP, "kaq.span_limit": limit,
                               "kaq.prune_intermediate_spans": int(pruned)})
    spans = collector.payload.spans
    positions = {span["si"]: position for position, span in enumerate(spans)}
    assert [(span["fn"], positions.get(span.get("psi"))) for span in spans] == model.rows()
    assert [span["mo"] for span in spans] == list(range(len(spans)))
