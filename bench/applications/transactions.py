"""What the collector must have got of a page: one payload, which decodes and tells of this page."""
import secrets

from payloads import HEX16, HEX32, Payload
from variants import KEY, is_monitored, is_traced

SNIPPET = "<script>/* kaq: the snippet of the bench */</script>"

_SECONDS = 15.0


def trace_headers(trace, parent):
    """What a caller of the same account sends."""
    return {"traceparent": "00-%s-%s-01" % (trace, parent), "X-Skelvor-Id": KEY[-12:],
            "X-Skelvor-Origin": '{"flow":"caller;"}'}


class Watch:
    """Observes a browser: what it finds wrong it keeps in `problems`, as (page, text)."""

    def __init__(self, variant, collector, sees_headers):
        self._variant, self._collector = variant, collector
        self._is_traced = is_traced(variant)
        self._joins_traces = self._is_traced and sees_headers
        self.problems = []
        self.transactions = self.spans = self.bytes = self.snippets = 0
        self.undecoded = self.missing = 0
        collector.forget()
        collector.reply = {"instance.id": "i-1", "instance.status": 920, "app.id": "site",
                           "transaction.trace.sql.stacktrace.threshold": 3}
        if variant.collector == "snippet":
            collector.reply["webtransaction.rum.snippet"] = SNIPPET

    def before(self, visit):
        if not self._is_traced:
            return {}
        self._trace, self._parent = secrets.token_hex(16), secrets.token_hex(8)
        return trace_headers(self._trace, self._parent)

    def _wait_for(self, wanted):
        """A script may answer first and go on (fastcgi_finish_request)."""
        try:
            self._collector.wait_until(lambda: len(self._collector.data_records) >= wanted, _SECONDS)
        except AssertionError:
            pass
        self._collector.settle()

    def after(self, visit):
        if self._variant.collector == "snippet":
            self.snippets += SNIPPET in visit.text
        wanted = int(is_monitored(self._variant) and not visit.is_static)
        self._wait_for(wanted)
        records = self._collector.data_records[:]
        self._collector.data_records.clear()
        payloads = []
        for record in records:
            if record.is_notice:
                self._wrong(visit, "a notice: %s" % record.text.strip())
                continue
            self.transactions += 1
            self.bytes += len(record.raw)
            try:
                payload = Payload(record.raw)
                self.spans += len(payload.spans)
                payloads.append(payload)
            except (ValueError, AssertionError, KeyError, TypeError) as error:
                self.undecoded += 1
                self._wrong(visit, "a payload that does not decode: %s; %r"
                            % (error, record.raw[:200]))
        if len(records) < wanted:
            self.missing += 1
            self._wrong(visit, "no transaction arrived")
        elif len(records) > wanted:
            self._wrong(visit, "%d records arrived instead of %d" % (len(records), wanted))
        if wanted and len(payloads) == 1:
            self._check(visit, payloads[0])

    def _check(self, visit, payload):
        told = payload.transaction
        path = visit.target.partition("?")[0]
        for name, value in (("t_name", path.rstrip("/") or "/"), ("httpcode", visit.status),
                            ("http_method_name", visit.method), ("transaction_type", 1)):
            if told.get(name) != value:
                self._wrong(visit, "%s is %r, not %r" % (name, told.get(name), value))
        ids = [span["si"] for span in payload.spans]
        if len(set(ids)) != len(ids) or not all(HEX16.match(text) for text in ids):
            self._wrong(visit, "span ids are not of the kind, or come twice")
        known = set(ids)
        for span in payload.spans[1:]:
            if span.get("psi") not in known:
                self._wrong(visit, "a span without its parent: %r" % span)
                break
        if not HEX32.match(told["trace_id"]):
            self._wrong(visit, "the trace id is %r" % told["trace_id"])
        if self._joins_traces:
            if (told["trace_id"], payload.root.get("psi")) != (self._trace, self._parent):
                self._wrong(visit, "it is not part of its caller's trace")

    def _wrong(self, visit, text):
        self.problems.append((visit.name, text))
