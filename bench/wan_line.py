"""How exact the emulated line is: its round trip, its rate and its losses, measured without any of
the systems over it."""
import socket
import statistics
import threading
import time

from harness import line, network

import wan_ends
from wan_ends import fork

PORT = 19001
SO_RCVBUFFORCE = 33
DATAGRAM, HEADERS = 1000, 28
PINGS, LOST_OF = 12, 20_000


def measure(rate, rtt, congestion):
    """A row: RTT of small packets on an empty line, the rate of packets beyond what it can carry, a
    TCP stream, and the losses of 20,000 small packets at 5 %."""
    network.enter_private_network()
    far_side = network.Namespace()
    emulated = line.Line(far_side, congestion, rate=rate, delay=rtt / 2)
    try:
        row = {"rate": rate, "rtt": rtt, "round_trip": _round_trip(far_side),
               "datagrams": _flood(far_side, rate),
               "tcp": _stream(far_side, 4 + 15 * rtt / 1000)}
        emulated.tell("cut")  # what is still under way
        emulated.tell("restore")
        emulated.set(rate=0, delay=1, loss=5)
        return row | {"lost": _losses(far_side)}
    finally:
        emulated.close()


def _socket(address):
    found = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    found.setsockopt(socket.SOL_SOCKET, SO_RCVBUFFORCE, 1 << 23)  # it must lose nothing itself
    found.bind((address, PORT))
    return found


def _ends(far_side):
    here = _socket(line.GATEWAY_ADDRESS)
    with far_side:
        there = _socket(line.CLOUD_ADDRESS)
    return here, there


def _round_trip(far_side):
    """Milliseconds: the median of them."""
    here, there = _ends(far_side)

    def echo():
        for _ in range(PINGS):
            there.sendto(*there.recvfrom(100))

    with here, there:
        threading.Thread(target=echo, daemon=True).start()
        times = []
        for _ in range(PINGS):
            began = time.monotonic()
            here.sendto(bytes(8), (line.CLOUD_ADDRESS, PORT))
            here.recv(100)
            times.append((time.monotonic() - began) * 1000)
    return statistics.median(times)


class Count:
    """The packets that come to a socket, counted by a process of its own."""

    def __init__(self, sock):
        self.packets = fork.Value("Q", 0, lock=False)
        self._process = fork.Process(target=self._run, args=(sock,), daemon=True)
        self._process.start()

    def _run(self, sock):
        wan_ends.end_with_parent()
        while sock.recv(2000):
            self.packets.value += 1

    def stop(self):
        self._process.kill()
        self._process.join()


def _flood(far_side, rate, seconds=4):
    """Bit/s that arrive of a fifth more than the line can carry, with the packets' headers."""
    here, there = _ends(far_side)
    with here, there:
        count, began, sent, seen = Count(there), time.monotonic(), 0, []
        per_s = 1.2 * rate / 8 / (DATAGRAM + HEADERS)
        while (passed := time.monotonic() - began) < seconds + 2:
            while sent < passed * per_s:
                here.sendto(bytes(DATAGRAM), (line.CLOUD_ADDRESS, PORT))
                sent += 1
            if passed > 2:
                seen.append((passed, count.packets.value))
            time.sleep(0.002)
        count.stop()
    (first, before), (last, after) = seen[0], seen[-1]
    return (after - before) * (DATAGRAM + HEADERS) * 8 / (last - first)


def _stream(far_side, warm_up_s, seconds=5):
    """Bit/s of one TCP connection's bytes."""
    with far_side:
        listener = socket.create_server((line.CLOUD_ADDRESS, PORT))
    sender = socket.create_connection((line.CLOUD_ADDRESS, PORT))
    reader, _ = listener.accept()
    listener.close()

    def send():
        try:
            wan_ends.send_pattern(sender, 0)
        except OSError:
            pass

    with reader:
        threading.Thread(target=send, daemon=True).start()
        began, counted, first = time.monotonic(), 0, 0
        while (passed := time.monotonic() - began) < warm_up_s + seconds:
            size = len(reader.recv(1 << 16))
            if passed > warm_up_s:
                first = first or passed
                counted += size
    return counted * 8 / (passed - first)


def _losses(far_side):
    """Per cent of 20,000 packets."""
    here, there = _ends(far_side)
    with here, there:
        count = Count(there)
        for number in range(LOST_OF):
            here.sendto(bytes(100), (line.CLOUD_ADDRESS, PORT))
            if number % 20 == 0:
                time.sleep(0.001)
        time.sleep(0.2)
        count.stop()
    return 100 * (1 - count.packets.value / LOST_OF)
