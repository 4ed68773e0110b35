"""One phase of one cell: a system over a line of its own, in networks of its own.

Each phase starts everything anew, so that nothing which an earlier one has left in buffers is in
its way, and so that phases can be measured side by side.
"""
import math
import time
from dataclasses import dataclass

from harness import line, network
from harness.tls import Certificates

import wan_ends
from peers import operator_way, ssh, stunnel
from place import Place
from wan_ends import Bulk, Keystrokes, Tally

# Each starts its peer at a place.
SYSTEMS = {
    "kept": lambda place: operator_way.start(place, "socket", keeper=True),
    "plain": lambda place: operator_way.start(place, "socket", "--no-keep"),
    "ssh -R": ssh.start,
    "stunnel": stunnel.start}
# The bulk sessions beside the keystrokes: their direction and number.
BESIDE = {"alone": None, "up1": ("up", 1), "down1": ("down", 1), "up31": ("up", 31),
          "down31": ("down", 31)}
PHASES = (*BESIDE, "cut")
CUT_S = 10
START_LIMIT_S, RECOVERY_LIMIT_S, SETTLED_S = 60, 60, 3
WARM_UP_S, WARM_UP_RTTS = 4, 6


@dataclass(frozen=True, order=True)
class Cell:
    rate: int    # bit/s, in each direction
    rtt: int     # ms, of the line alone
    loss: float  # %, in each direction

    @property
    def rtt_s(self):
        return self.rtt / 1000


@dataclass(frozen=True)
class Job:
    cell: Cell
    system: str
    phase: str
    window_s: float
    patience_s: float
    congestion: str  # control of all TCP over the line

    @property
    def name(self):
        return f"{self.cell.rate}-{self.cell.rtt}-{self.cell.loss:g}-{self.system}-{self.phase}"


class Rig:
    """The line, the system over it, and a keystroke session that has answered."""

    def __init__(self, directory, certificates, job):
        network.enter_private_network()
        self.far_side, self.tally, self.job = network.Namespace(), Tally(), job
        cell = job.cell
        # Phases of a cell meet the same line, whichever system they are for.
        self.line = line.Line(self.far_side, job.congestion, seed=1 + PHASES.index(job.phase),
                              rate=cell.rate, delay=cell.rtt / 2, loss=cell.loss)
        self.place = Place(directory, job.name.replace(" ", ""), certificates,
                           far_side=self.far_side,
                           addresses=(line.GATEWAY_ADDRESS, line.CLOUD_ADDRESS))
        wan_ends.start_service(self.place.service, self.tally)
        SYSTEMS[job.system](self.place)
        self.keys = self.keystrokes(START_LIMIT_S)
        self.keys.send()
        self.keys.wait_for_rest(START_LIMIT_S)
        if not self.keys.came:
            raise TimeoutError("the first keystroke did not come back")

    def keystrokes(self, limit_s):
        return Keystrokes(self.far_side, self.place.operator, limit_s)

    def bulk(self, way, count, rate=0):
        return Bulk(self.far_side, self.place.operator, way, count, self.tally, rate)

    def warm_up(self):
        self.keys.type(WARM_UP_S + WARM_UP_RTTS * self.job.cell.rtt_s)

    def lost(self):
        """Bytes that are missing although later ones of their session came."""
        return self.tally.missing + self.keys.missing * wan_ends.KEY_SIZE

    def close(self):
        self.keys.close()
        keep = getattr(self.place, "keep", None)
        if keep:
            keep.stop()
        self.place.stop()
        self.line.close()


def percentile(ordered, share):
    return ordered[math.ceil(share * len(ordered)) - 1]


def measure_keystrokes(rig):
    """Beside bulk data, whose speed is measured meanwhile, or alone."""
    job = rig.job
    bulk = BESIDE[job.phase] and rig.bulk(*BESIDE[job.phase])
    rig.warm_up()
    first, received, began = len(rig.keys.sent), rig.tally.received, time.monotonic()
    rig.keys.type(job.window_s)
    speed = 8 * (rig.tally.received - received) / (time.monotonic() - began)
    rig.keys.wait_for_rest(job.patience_s)
    times, unanswered = rig.keys.times(first)
    found = {"p50": percentile(times, 0.5), "p99": percentile(times, 0.99), "keys": len(times),
             "unanswered": unanswered, "ended": rig.keys.is_lost}
    if bulk:
        found |= {"speed": speed, "bulk_ended": bulk.has_ended}
    return found


def measure_recovery(rig):
    """From the line's return until a keystroke that was sent after it comes back; on a new session,
    if the old one is lost. Beside an upload that takes a quarter of the line."""
    bulk = rig.bulk("up", 1, min(rig.job.cell.rate / 8 / 4, 250e3))
    rig.warm_up()
    rig.line.tell("cut")
    rig.keys.type(CUT_S)
    rig.line.tell("restore")
    returned, first = time.monotonic(), len(rig.keys.sent)

    def answered():
        return any(number in rig.keys.came for number in range(first, len(rig.keys.sent)))

    rig.keys.type(RECOVERY_LIMIT_S, done=answered)
    same = answered()
    found = {"same_session": same, "recovery": time.monotonic() - returned}
    if same:
        found["recovery"] = min(came for number, came in rig.keys.came.items()
                                if number >= first) - returned
    elif (took := wait_for_new_session(rig, returned)) is not None:
        found["recovery"] = took
    else:
        found["recovery"] = None
    rig.keys.type(SETTLED_S + WARM_UP_RTTS * rig.job.cell.rtt_s)
    return found | {"upload_ended": bulk.has_ended}


def wait_for_new_session(rig, returned):
    """Seconds from the line's return until one answers; None if none does within the limit."""
    while time.monotonic() - returned < RECOVERY_LIMIT_S:
        try:
            keys = rig.keystrokes(START_LIMIT_S)
            keys.send()
            keys.wait_for_rest(2 + WARM_UP_RTTS * rig.job.cell.rtt_s)
            keys.close()
            if keys.came:
                return min(keys.came.values()) - returned
        except OSError:
            time.sleep(0.2)
    return None


def run(directory, job):
    """The phase's figures; seconds and bit/s. In a process of its own."""
    rig = Rig(directory, Certificates(directory / "tls"), job)
    try:
        measure = measure_recovery if job.phase == "cut" else measure_keystrokes
        found = measure(rig)
        return found | {"lost": rig.lost(), "wrong": rig.tally.wrong, "line": rig.line.counts()}
    finally:
        rig.close()
