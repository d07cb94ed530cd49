"""Encoding of a request's spans, against the engine's json_encode and base64_encode."""
import harness

SPANS = (10, 1000, 10000)


def time_encoding(setup, rounds):
    """{spans: (bytes of the document, [ns of ours], [ns of the engine's])}."""
    result = {}
    for spans in SPANS:
        harness.progress("encoding: %d spans" % spans)
        lines = harness.output([setup.encode, str(spans), str(rounds)]).splitlines()
        pairs = [tuple(float(word) for word in line.split()) for line in lines[1:]]
        result[spans] = (int(lines[0]), [own for own, _ in pairs],
                         [engine for _, engine in pairs])
    return result


def count_instructions(setup, spans=1000):
    """Instructions per span of ours and the engine's, from two run lengths each."""
    counts = {}
    for side in ("own", "engine"):
        harness.progress("instructions: encoding, %s" % side)
        short, long = (harness.instructions([setup.encode, str(spans), side, str(times)],
                                            setup.scratch) for times in (5, 25))
        counts[side] = (long - short) / (20 * spans)
    return counts
