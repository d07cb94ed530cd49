"""The payload line of the data port: its framing, its JSON text and its spans."""
import base64
import functools
import json
import re

HEX16 = re.compile(r"[0-9a-f]{16}\Z")
HEX32 = re.compile(r"[0-9a-f]{32}\Z")


def unique_members(pairs):
    """Object hook that keeps member order and refuses a key that comes twice."""
    members = dict(pairs)
    assert len(members) == len(pairs), "a key comes twice: %s" % [key for key, _ in pairs]
    return members


def decode_line(raw):
    """The bytes of one Base64 record: a single line feed, at the very end, and nothing else."""
    assert raw.endswith(b"\n") and raw.count(b"\n") == 1, (len(raw), raw[:80], raw[-80:])
    return base64.b64decode(raw[:-1], validate=True)


def escape(text):
    """text as the extension writes it inside a JSON string."""
    short = {8: "\\b", 9: "\\t", 10: "\\n", 12: "\\f", 13: "\\r", 34: '\\"', 47: "\\/", 92: "\\\\"}
    return "".join(
        short.get(ord(c)) or ("\\u%04x" % ord(c) if ord(c) < 0x20 else c) for c in text)


class Payload:
    def __init__(self, raw):
        self.raw = raw
        self.bytes = decode_line(raw)
        self.text = self.bytes.decode("utf-8", "surrogateescape")

    @functools.cached_property
    def document(self):
        return json.loads(self.text, object_pairs_hook=unique_members)

    @property
    def application(self):
        return self.document["apm"]["application_info"]

    @property
    def transaction(self):
        return self.document["apm"]["transaction_info"]

    @property
    def spans(self):
        return self.document["apm"]["method_info"]["span_info"]

    @property
    def root(self):
        return self.spans[0]

    @property
    def names(self):
        """The names of all spans but the root, in key order."""
        return [span["fn"] for span in self.spans[1:]]

    def span(self, name):
        found = [span for span in self.spans if span.get("fn") == name]
        assert len(found) == 1, (name, self.names)
        return found[0]

    def parent_of(self, span):
        found = [other for other in self.spans if other["si"] == span["psi"]]
        assert len(found) == 1, span
        return found[0]

    def tree(self):
        """(name, [children ...]) of the root; children in key order."""
        nodes = {span["si"]: (span["fn"], []) for span in self.spans}
        for span in self.spans[1:]:
            nodes[span["psi"]][1].append(nodes[span["si"]])
        return nodes[self.root["si"]]

    def raw_member(self, key):
        """The JSON text of a member of transaction_info as it stands on the wire, or None."""
        section = self.text.index('"transaction_info":{')
        at = self.text.find('"%s":' % key, section)
        if at < 0 or key not in self.transaction:
            return None
        at += len(key) + 3
        _, end = json.JSONDecoder(strict=False).raw_decode(self.text, at)
        return self.text[at:end]
