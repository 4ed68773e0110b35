"""The two ends of what is measured over a line: a service on the gateway, and its clients.

A client's first line says what the connection is for: "echo", "up RATE SLOT" (the service sends) or
"down RATE SLOT" (it reads). RATE is in bytes per second, 0 for as fast as can be; SLOT is where the
reader counts. Each end has processes of its own, so that bulk data costs the keystrokes nothing.
"""
import ctypes
import multiprocessing
import os
import random
import re
import selectors
import signal
import socket
import threading
import time

fork = multiprocessing.get_context("fork")
SLOTS = 32
PATTERN_SIZE = 1 << 25  # a gap is told from a step back up to half of it
PATTERN = random.Random(15).randbytes(PATTERN_SIZE) * 2  # twice: a slice never has to wrap
WINDOW = 24  # bytes that identify a place in the pattern
BLOCK = 1 << 15
KEY_SIZE = 64
_KEY = re.compile(rb"key (\d{10}) {%d}" % (KEY_SIZE - 14))
_PR_SET_PDEATHSIG = 1
_libc = ctypes.CDLL(None)


def end_with_parent():
    _libc.prctl(_PR_SET_PDEATHSIG, signal.SIGKILL)


class Tally:
    """What the readers of all bulk sessions have counted, each in its slot; shared by processes."""

    def __init__(self):
        self._received, self._missing, self._wrong = (
            fork.Array("Q", SLOTS, lock=False) for _ in range(3))

    def add(self, slot, received, missing, wrong):
        self._received[slot] += received
        self._missing[slot] += missing
        self._wrong[slot] += wrong

    received, missing, wrong = (property(lambda self, name=name: sum(getattr(self, name)))
                                for name in ("_received", "_missing", "_wrong"))


class Checker:
    """Finds what a reader of the pattern, sent again and again, has not got."""

    def __init__(self, tally, slot):
        self._tally, self._slot, self._at, self._kept = tally, slot, 0, b""

    def feed(self, data):
        size, missing, wrong = len(data), 0, 0
        data = self._kept + data
        self._kept = b""
        while data:
            same = _common(data, PATTERN, self._at)
            self._at, data = (self._at + same) % PATTERN_SIZE, data[same:]
            if not data:
                break
            if len(data) < WINDOW:
                self._kept = data  # not enough to know its place yet
                break
            found = PATTERN.find(data[:WINDOW], self._at)
            if found < 0 or found - self._at > PATTERN_SIZE // 2:
                wrong += 1  # never sent so, or a second time
                self._at, data = (found if found >= 0 else self._at) % PATTERN_SIZE, b""
            else:
                missing += found - self._at
                self._at = found % PATTERN_SIZE
        self._tally.add(self._slot, size, missing, wrong)


def _common(data, other, at):
    """How many bytes from `at` on are the same; at most half of `other` is looked at."""
    low, high = 0, min(len(data), len(other) - at)
    if data[:high] == other[at:at + high]:
        return high
    while low < high:
        half = (low + high + 1) // 2
        if data[low:half] == other[at + low:at + half]:
            low = half
        else:
            high = half - 1
    return low


def send_pattern(connection, rate):
    at, began = 0, time.monotonic()
    while True:
        if rate:
            time.sleep(max(0, began + at / rate - time.monotonic()))
        place = at % PATTERN_SIZE
        at += connection.send(PATTERN[place:place + min(BLOCK, int(rate / 10) or BLOCK)])


def _serve_one(connection, tally):
    line = b""
    while not line.endswith(b"\n"):
        byte = connection.recv(1)
        if not byte:
            return
        line += byte
    kind, *numbers = line.split()
    if kind == b"up":
        send_pattern(connection, int(numbers[0]))
    check = Checker(tally, int(numbers[1])).feed if kind == b"down" else connection.sendall
    while data := connection.recv(1 << 16):
        check(data)


def _serve(listener, tally):
    end_with_parent()
    signal.signal(signal.SIGCHLD, signal.SIG_IGN)  # the kernel forgets those that have ended
    while True:
        connection, _ = listener.accept()
        if os.fork() == 0:
            end_with_parent()
            listener.close()
            try:
                connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
                _serve_one(connection, tally)
            except OSError:
                pass
            os._exit(0)
        connection.close()


def start_service(port, tally):
    listener = socket.create_server(("127.0.0.1", port), backlog=64)
    fork.Process(target=_serve, args=(listener, tally), daemon=True).start()
    listener.close()


def connect(far_side, port, request, limit_s=30):
    """A client's connection for this."""
    with far_side:
        connection = socket.socket()
    connection.settimeout(limit_s)
    connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
    connection.connect(("127.0.0.1", port))
    connection.sendall(f"{request}\n".encode())
    return connection


class Bulk:
    """`count` sessions that carry as much as they can, or `rate` bytes per second each."""

    def __init__(self, far_side, port, way, count, tally, rate=0):
        connections = [connect(far_side, port, f"{way} {int(rate)} {slot}")
                       for slot in range(count)]
        carry = self._read if way == "up" else self._write
        self._process = fork.Process(target=carry, args=(connections, tally), daemon=True)
        self._process.start()
        for connection in connections:
            connection.close()

    @staticmethod
    def _read(connections, tally):
        end_with_parent()
        with selectors.DefaultSelector() as selector:
            for slot, connection in enumerate(connections):
                selector.register(connection, selectors.EVENT_READ, Checker(tally, slot))
            while selector.get_map():
                for key, _ in selector.select():
                    try:
                        data = key.fileobj.recv(1 << 16)
                    except OSError:
                        data = b""
                    if data:
                        key.data.feed(data)
                    else:
                        selector.unregister(key.fileobj)

    @staticmethod
    def _write(connections, _):
        end_with_parent()

        def write(connection):
            try:
                connection.settimeout(None)
                send_pattern(connection, 0)
            except OSError:
                pass

        threads = [threading.Thread(target=write, args=(connection,)) for connection in connections]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()

    @property
    def has_ended(self):
        """Whether all its sessions are over."""
        return not self._process.is_alive()


class Keystrokes:
    """Short messages on a session of their own, sent on time whether or not the ones before have
    come back. `sent` and `came` have the time of each that was sent, and of each that came."""

    def __init__(self, far_side, port, limit_s):
        self._connection = connect(far_side, port, "echo", limit_s)
        self._unread, self.sent, self.came, self.is_lost = b"", [], {}, False

    def send(self):
        self.sent.append(time.monotonic())
        text = b"key %010d " % (len(self.sent) - 1)
        try:
            self._connection.sendall(text.ljust(KEY_SIZE))
        except OSError:
            self.is_lost = True

    def receive(self, until):
        """What comes until then."""
        while not self.is_lost and (left := until - time.monotonic()) > 0:
            self._connection.settimeout(left)
            try:
                data = self._connection.recv(1 << 16)
            except TimeoutError:
                return
            except OSError:
                data = b""
            self.is_lost = not data
            self._note(data)
        time.sleep(max(0, until - time.monotonic()))

    def _note(self, data):
        self._unread += data
        end = 0
        for found in _KEY.finditer(self._unread):
            self.came.setdefault(int(found[1]), time.monotonic())
            end = found.end()
        self._unread = self._unread[end:]

    def type(self, seconds, interval=0.1, done=lambda: False):
        """One each interval, for so long or until done()."""
        first = time.monotonic()
        for number in range(round(seconds / interval)):
            if self.is_lost or done():
                return
            self.send()
            self.receive(first + (number + 1) * interval)

    def wait_for_rest(self, seconds):
        limit = time.monotonic() + seconds
        while not self.is_lost and len(self.came) < len(self.sent) and time.monotonic() < limit:
            self.receive(min(limit, time.monotonic() + 0.05))

    def times(self, first=0):
        """Seconds that each from the `first` on took, and how many of them have not come: these
        took as long as has been waited, at least."""
        now = time.monotonic()
        numbers = range(first, len(self.sent))
        took = sorted(self.came.get(number, now) - self.sent[number] for number in numbers)
        return took, sum(number not in self.came for number in numbers)

    @property
    def missing(self):
        """How many did not come although later ones did."""
        return sum(number not in self.came for number in range(max(self.came, default=0)))

    def close(self):
        self._connection.close()
