"""The ends of the sessions under load, and what measures beside them.

A service, and a client that does work, runs as a process of its own: it costs the probes nothing.
"""
import multiprocessing
import os
import signal
import socket
import statistics
import threading
import time

fork = multiprocessing.get_context("fork")
BLOCK = 1 << 16
PROBE_PAUSE_S = 0.003


def echo(connection, moved):
    while data := connection.recv(BLOCK):
        connection.sendall(data)
        moved.value += len(data)


def source(connection, moved):
    block = bytes(BLOCK)
    while True:
        moved.value += connection.send(block)


def sink(connection, moved):
    block = bytearray(BLOCK)
    while count := connection.recv_into(block):
        moved.value += count


def deaf(connection, moved):
    """Never reads."""
    threading.Event().wait()


def crawler(connection, moved):
    """Reads, but little at a time."""
    while data := connection.recv(1024):
        moved.value += len(data)
        time.sleep(0.02)


class End:
    """A process that behaves so on one connection, or on each that a listener takes."""

    def __init__(self, behave, sock, is_listener=False):
        self.moved, self._behave = fork.Value("Q", 0, lock=False), behave
        target = self._accept if is_listener else self._carry
        self._process = fork.Process(target=target, args=(sock,), daemon=True)
        self._process.start()
        self.port = sock.getsockname()[1]
        sock.close()  # it is the process's now

    def _carry(self, connection):
        try:
            self._behave(connection, self.moved)
        except OSError:
            pass
        connection.close()

    def _accept(self, listener):
        while True:
            connection, _ = listener.accept()
            connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
            threading.Thread(target=self._carry, args=(connection,), daemon=True).start()

    def rate(self, seconds):
        """MB/s over this time."""
        before = self.moved.value
        time.sleep(seconds)
        return (self.moved.value - before) / seconds / 1e6

    def freeze(self):
        os.kill(self._process.pid, signal.SIGSTOP)

    def stop(self):
        self._process.kill()
        self._process.join()


class Probe(threading.Thread):
    """Does the same short thing again and again and takes its times, in milliseconds."""

    def __init__(self, ping):
        super().__init__(daemon=True)
        self._ping, self.times, self._ended = ping, [], threading.Event()
        self._began = None
        self.start()

    def run(self):
        while not self._ended.is_set():
            self._began = time.monotonic()
            try:
                self._ping()
            except OSError:  # the channel was closed; it has waited in vain until then
                self._ended.set()
            self.times.append((time.monotonic() - self._began) * 1000)
            time.sleep(PROBE_PAUSE_S)

    def stop(self, patience_s=90):
        """The median, the longest and the number of the times."""
        self._ended.set()
        self.join(patience_s)
        if self.is_alive():  # still waiting: at least so long
            self.times.append((time.monotonic() - self._began) * 1000)
        return statistics.median(self.times), max(self.times), len(self.times)


def echo_ping(connection):
    def ping():
        connection.sendall(bytes(64))
        left = 64
        while left:
            data = connection.recv(left)
            if not data:
                raise ConnectionError
            left -= len(data)
    return ping
