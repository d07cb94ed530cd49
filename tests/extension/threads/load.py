"""Many clients at once."""
import http.client
import itertools
import threading
import time

CLIENTS = 16


class Load:
    """Requests from CLIENTS threads that all begin at the same moment: `count` of them, or until
    stop(). Every request has a number of its own, from `first` on."""

    def __init__(self, server, path_of, first=1, count=None):
        self.server, self.path_of = server, path_of
        self.answers = {}
        self.failures = []
        numbers = itertools.count(first)
        self._numbers = numbers if count is None else itertools.islice(numbers, count)
        self._lock = threading.Lock()
        self._stopping = threading.Event()
        self._together = threading.Barrier(CLIENTS)
        self._threads = [threading.Thread(target=self._ask) for _ in range(CLIENTS)]

    def _next(self):
        with self._lock:
            return None if self._stopping.is_set() else next(self._numbers, None)

    def _ask(self):
        self._together.wait()
        while (number := self._next()) is not None:
            try:
                self.answers[number] = self.server.get(self.path_of(number))
            except (OSError, http.client.HTTPException) as error:
                self.failures.append((number, repr(error)))

    def wait_for(self, count, seconds=60.0):
        """Until that many requests have been answered or have failed."""
        deadline = time.monotonic() + seconds
        while len(self.answers) + len(self.failures) < count:
            assert time.monotonic() < deadline, "only %d answers" % len(self.answers)
            time.sleep(0.01)

    def __enter__(self):
        for thread in self._threads:
            thread.start()
        return self

    def __exit__(self, *_):
        self.stop()

    def stop(self):
        self._stopping.set()
        self.join()

    def join(self):
        for thread in self._threads:
            thread.join()
