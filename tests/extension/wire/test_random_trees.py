"""Random call trees against a model of the span rules. The seed is part of the test's name."""
import os
import random

import pytest
import span_model

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


class Model(span_model.Spans):
    def run(self, calls, parent):
        for call in calls:
            span = self.open(call.name, parent) if self.has_room() else None
            self.run(call.children, span or parent)
            if span:
                self.close(span, call.threshold == KEEP)


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
    assert span_model.rows_of(spans) == model.rows()
    assert [span["mo"] for span in spans] == list(range(len(spans)))
