"""The rules by which calls become spans, for calls that take no time, each with its span from the
start."""


class Recorded:
    def __init__(self, name, parent, key):
        self.name, self.parent, self.key = name, parent, key
        self.child_count, self.marked, self.necessary = 0, False, True
        self.fault, self.error = 0, 0


class Spans:
    def __init__(self, limit):
        self.limit, self.next_key, self.stored = limit, 0, []
        self.root = self.open("main", None)

    def has_room(self):
        return len(self.stored) < self.limit

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

    def prune(self):
        kept = {id(span) for span in self.stored if span is self.root or span.necessary
                or (span.parent is not None and span.parent.child_count >= 2)}
        for span in self.stored:
            if span.parent is not None:
                while id(span.parent) not in kept:
                    span.parent = span.parent.parent
        self.stored = [span for span in self.stored if id(span) in kept]

    def rows(self):
        """(name, position of the parent, fault, error) of every span in key order."""
        ordered = sorted(self.stored, key=lambda span: span.key)
        positions = {id(span): position for position, span in enumerate(ordered)}
        return [(span.name, positions.get(id(span.parent)), span.fault, span.error)
                for span in ordered]


def rows_of(spans):
    """The same of the spans of a payload."""
    positions = {span["si"]: position for position, span in enumerate(spans)}
    return [(span["fn"], positions.get(span.get("psi")), span.get("if", 0),
             span.get("ie", 0)) for span in spans]
