"""Sessions through the tunnel that carry numbered bytes, so that every missing one shows."""
import random
import socket
import threading
import time

PERIOD = 1 << 25  # longer than what a closed window can cost in a minute
PATTERN = random.Random(4).randbytes(PERIOD)
_TWICE = PATTERN + PATTERN
_WINDOW = 32  # enough bytes to identify a place in the pattern
_TICK_S = 0.05
_BUFFER = 1 << 16  # small, so that what counts as lost was on the way and not still at home


class Stream:
    """One direction of a session."""

    def __init__(self, source, sink, rate):
        self.source, self.sink, self.rate = source, sink, rate
        self.sent = self.received = self.holes = self._place = 0
        self.source_ended = self.sink_ended = None
        self.unread = self.corrupt = False
        self._rest, self._due = b"", 0.0

    @property
    def lost(self):
        return self.sent - self.received

    def tick(self, now, seconds):
        self._due = min(self._due + self.rate * seconds, self.rate)
        if self._due >= 1 and not self.source_ended:
            at = self.sent % PERIOD
            try:
                count = self.source.send(_TWICE[at:at + int(self._due)])
                self.sent, self._due = self.sent + count, self._due - count
            except BlockingIOError:
                pass
            except OSError:
                self.source_ended = now
        while not self.sink_ended and not self.unread:
            try:
                data = self.sink.recv(1 << 18)
            except BlockingIOError:
                break
            except OSError:
                data = b""
            self._take(data)
            if not data:
                self.sink_ended = now

    def _take(self, data):
        self.received += len(data)
        data = self._rest + data
        while data:
            at = self._place % PERIOD
            if data == _TWICE[at:at + len(data)]:
                self._place, data = self._place + len(data), b""
                break
            good = next(i for i in range(len(data)) if data[i] != _TWICE[at + i])
            self._place, data = self._place + good, data[good:]
            if len(data) < _WINDOW:
                break
            found = _TWICE.find(data[:_WINDOW], self._place % PERIOD)
            if found < 0:
                self.corrupt, data = True, b""
                break
            self.holes += found - self._place % PERIOD
            self._place += found - self._place % PERIOD
        self._rest = data


class Session:
    def __init__(self, client, service, rate_up=0, rate_down=0):
        for end in (client, service):
            end.setblocking(False)
            end.setsockopt(socket.SOL_SOCKET, socket.SO_SNDBUF, _BUFFER)
        self.client, self.service = client, service
        self.up = Stream(service, client, rate_up)
        self.down = Stream(client, service, rate_down)

    def tick(self, now, seconds):
        self.up.tick(now, seconds)
        self.down.tick(now, seconds)
        if self.up.sink_ended:
            self.down.rate = 0  # a client that has seen the end says no more

    def ends(self):
        """When each end saw the session's end: (operator's client, local service)."""
        return self.up.sink_ended, self.down.sink_ended

    def close(self):
        self.client.close()
        self.service.close()


class Traffic:
    """Keeps all sessions moving, from one thread."""

    def __init__(self):
        self.sessions, self._stop = [], threading.Event()
        self._thread = threading.Thread(target=self._run, daemon=True)
        self._thread.start()

    def _run(self):
        last = time.monotonic()
        while not self._stop.wait(_TICK_S):
            now = time.monotonic()
            for session in list(self.sessions):
                session.tick(now, now - last)
            last = now

    def stop(self):
        self._stop.set()
        self._thread.join()
