"""Where bytes are lost by design, and that the log reports each loss.

The two ends compare a random stream: which stretches of it are missing. The daemon's log has the
messages that the stream travelled in, and which of them it gave up. Every stretch has to be made of
whole messages (upwards) or of their ends (downwards) that the log has given up.
"""
import concurrent.futures
import random
import re
import time
from dataclasses import dataclass

from harness.local import listen
from harness.pair import Pair, enter_linked_networks
from harness.workspace import Workspace

import speed
from ends import End, fork

WINDOW = 24     # bytes that identify a place in the stream
QUIET_S = 6     # no byte for so long: nothing more will come
MESSAGE = 51200 # bytes of the longest one
READ, PAUSE_AT = 1 << 14, 1 << 20

_SENT_UP = re.compile(r"local service data to cloud headlen:\d+, payloadlen:(\d+), bufferLen:\d+")
_FAILED_UP = re.compile(r"send to cloud failed! writenLen:-?\d+ ")
_PAYLOAD_DOWN = re.compile(r"local data total len:(\d+)")
_ATTEMPT_DOWN = re.compile(r"send to local service len:(\d+)")
BLOCKED = "local socket block, try again!"
ATTEMPTS = 3


def missing(expected, received):
    """The stretches (start, length) of `expected` that `received` lacks; its end is no stretch."""
    stretches, at, seen = [], 0, 0
    while seen < len(received):
        same = common(expected, at, received, seen)
        at, seen = at + same, seen + same
        if seen == len(received):
            break
        found = expected.find(received[seen:seen + WINDOW], at)
        if found < 0:
            raise AssertionError(f"byte {seen} of what was received was never sent")
        stretches.append((at, found - at))
        at = found
    return stretches, at


def common(one, i, other, j):
    """How many bytes from here on are the same."""
    low, high = 0, min(len(one) - i, len(other) - j)
    while low < high:
        half = (low + high + 1) // 2
        if one[i + low:i + half] == other[j + low:j + half]:
            low = half
        else:
            high = half - 1
    return low


def given_up(lines, way):
    """(start, length) of what the log has given up, in stretches of the stream, and the bytes
    that it has seen."""
    at, lost, size, blocked = 0, [], 0, 0
    for text in lines:
        if way == "up":
            if found := _SENT_UP.fullmatch(text):
                size = int(found[1])
                at += size
            elif _FAILED_UP.fullmatch(text):
                lost.append((at - size, size))
        elif found := _PAYLOAD_DOWN.fullmatch(text):
            at += int(found[1])
        elif found := _ATTEMPT_DOWN.fullmatch(text):
            size, blocked = int(found[1]), 0
        elif text == BLOCKED:
            blocked += 1
            if blocked == ATTEMPTS:
                lost.append((at - size, size))
    return lost, at


@dataclass
class Result:
    lines: int        # of the log that report a loss, or a message that left late
    lost: int         # of these, those whose bytes are missing
    bytes: int        # missing
    whole: int        # bytes that the stream had
    first: int | None # place in the stream of the first loss
    faults: list


def compare(expected, received, log, way):
    stretches, end = missing(expected, received)
    lost, told = given_up(log, way)
    if end < told:  # after its last byte
        stretches.append((end, told - end))
    faults, gone = [], 0
    for start, length in stretches:
        # A byte before or behind may be the same by chance: the stretch then shows a little off.
        inside = [(s, n) for s, n in lost if s + n > start + 2 and s < start + length - 2]
        gone += len(inside)
        if sum(n for _, n in inside) != length or not inside or abs(inside[0][0] - start) > 2:
            faults.append(f"bytes {start} to {start + length} are missing, the log tells of "
                          f"{inside[:4]}")
    return Result(len(lost), gone, sum(n for _, n in stretches), told,
                  stretches[0][0] if stretches else None, faults)


def write_all(data):
    """Sends the stream and stays."""
    def behave(connection, moved):
        view = memoryview(data)
        while moved.value < len(data):
            moved.value += connection.send(view[moved.value:moved.value + (1 << 16)])
        time.sleep(3600)
    return behave


@dataclass
class Stream:
    """One stream through a gateway of its own: what limits it, and how its reader behaves."""
    way: str                     # "up" or "down"
    size: int
    timeout_ms: int = 2000
    uplink: float | None = None  # bits per second
    downlink: float | None = None
    pause_s: float = 0           # once, after the first bytes
    pace: float = 0              # bytes per second that are read; 0: as fast as can be
    limit_s: float = 60

    @property
    def name(self):
        parts = (self.timeout_ms, self.uplink, self.downlink, self.pause_s * 1000, self.pace)
        return "-".join([self.way, *(f"{part or 0:.0f}" for part in parts)])

    def sleep(self, count):
        if self.pace:
            time.sleep(READ / self.pace)
        elif self.pause_s and count <= PAUSE_AT < count + READ:
            time.sleep(self.pause_s)


def read_into(path, stream):
    """Writes what it reads to a file, at the stream's pace."""
    def behave(connection, moved):
        with open(path, "wb", buffering=0) as file:
            while data := connection.recv(min(READ, READ - moved.value % READ)):
                file.write(data)
                moved.value += len(data)
                if moved.value % READ == 0:
                    stream.sleep(moved.value - READ)
    return behave


def wait_quiet(end, quiet_s, limit_s):
    """Until nothing has moved for so long, or the time is over."""
    begun = since = time.monotonic()
    count = end.moved.value
    while time.monotonic() - since < quiet_s and time.monotonic() - begun < limit_s:
        time.sleep(0.1)
        if end.moved.value != count:
            count, since = end.moved.value, time.monotonic()


def carry(workspace, cloud, stream):
    """Carries it and compares its ends."""
    data = random.Random(stream.name).randbytes(stream.size)
    path = workspace.directory / f"{stream.name}.received"
    ends = write_all(data), read_into(path, stream)
    behave_service, behave_client = ends if stream.way == "up" else ends[::-1]
    service = End(behave_service, listen(), is_listener=True)
    pair = Pair(workspace, cloud, stream.name, {"stream": ("127.0.0.1", service.port)},
                {"gw_remoteaccess_trans_timeout": stream.timeout_ms},
                level=1 if stream.way == "up" else 0)
    speed.limit(cloud, stream.uplink, stream.downlink)
    client = End(behave_client, pair.client("stream"))
    sender, receiver = (service, client) if stream.way == "up" else (client, service)
    patience_s = QUIET_S + stream.pause_s + stream.timeout_ms / 500  # a message may take so long
    wait_quiet(receiver, patience_s, stream.limit_s)
    # What is under way when the time is over is no loss: the sender stops, the rest drains.
    sender.freeze()
    speed.limit(cloud)
    wait_quiet(receiver, patience_s, 120)
    result = compare(data, path.read_bytes(), [line.text for line in pair.gateway.log.lines],
                     stream.way)
    for end in (service, client):
        end.stop()
    result.faults += [f"{stream.name}: {fault}" for fault in pair.close()]
    path.unlink()
    return result


def carry_alone(stream):
    """In a process of its own, with a network of its own."""
    with Workspace() as workspace:
        return carry(workspace, enter_linked_networks(), stream)


def carry_all(streams, at_once):
    with concurrent.futures.ProcessPoolExecutor(at_once, fork) as pool:
        return list(zip(streams, pool.map(carry_alone, streams)))


def share(part, whole):
    return f"{100 * part / whole:.1f} %" if part else "0"


def up_table():
    """The uplink's speed against the time-out."""
    streams = [Stream("up", 32 << 20, timeout_ms, uplink=factor * 8e3 * MESSAGE / timeout_ms,
                      limit_s=30 + timeout_ms / 100)
               for timeout_ms in (500, 2000, 10000) for factor in (0.8, 1, 1.25, 1.5, 2, 3)]
    lines = ["| `gw_remoteaccess_trans_timeout` | uplink | lines in the log | of them late | "
             "of them lost | bytes lost |", "|--:|--:|--:|--:|--:|--:|"]
    failed = []
    for stream, result in carry_all(streams, 6):
        lines.append(f"| {stream.timeout_ms} ms | {stream.uplink / 1e3:.0f} kbit/s | "
                     f"{result.lines} | {result.lines - result.lost} | {result.lost} | "
                     f"{share(result.bytes, result.whole)} |")
        failed += result.faults
    return lines, failed


def down_table():
    """A service's pause against the downlink's speed, and its steady pace."""
    streams = [Stream("down", int(8e6 + min(speed or 1e8, 1e8) / 8 * (pause + 3)),
                      downlink=speed, pause_s=pause)
               for speed, pauses in ((1e7, (2, 3, 4, 6)), (1e8, (0.1, 0.3, 0.5, 1)),
                                     (None, (0.03, 0.1, 0.3))) for pause in pauses]
    streams += [Stream("down", int(12e6 + 20 * pace), pace=pace) for pace in (
        8e6, 4e6, 2e6, 1e6, 0.5e6)]
    lines = ["| the service | downlink | messages cut | bytes lost | first lost after |",
             "|---|--:|--:|--:|--:|"]
    failed = []
    for stream, result in carry_all(streams, 3):
        what = f"pauses for {stream.pause_s:g} s" if stream.pause_s else \
            f"reads {stream.pace / 1e6:g} MB/s"
        link = f"{stream.downlink / 1e6:.0f} Mbit/s" if stream.downlink else "no limit"
        first = "-" if result.first is None else f"{result.first / 1e6:.1f} MB"
        lines.append(f"| {what} | {link} | {result.lost} | {share(result.bytes, result.whole)} | "
                     f"{first} |")
        failed += result.faults
    return lines, failed
