"""The states and the faults, and what each fault is expected to do."""
import re
import socket
import time
from dataclasses import dataclass, field
from typing import Callable, Optional

from harness.local import end_by_reset
from harness.modules import start_watchdog

from world import CLOUD, NEW_CLOUD

STATES = ("opening", "handshaking", "idle", "uploading", "downloading", "32 sessions")
CONNECTED = STATES[2:]
RATE, FAST = 300_000, 1_500_000  # bytes per second
HURRY = 5

START, ACCEPTED = "start to create cloud channel...", "handshake response code is 0!"
FAILED, END = "cloud channel open failed", "end the cloud channel."
GIVEN_UP = "=======retry to connect remote debug channel error! service exit!======="
DROPPED_UP = re.compile("send to cloud failed! writenLen:.*")
DROPPED_DOWN = re.compile("local service bad: Resource temporarily unavailable, .*")
BUS_LOST = re.compile("(remote access daemon connect|connection local) dbus error!")
CLOCK_REFUSED, NO_SETTINGS = "handshake response code is 412!", "can not get PK, result:-1"

# What the log may contain at levels W and E. There is no bridge on these gateways' buses.
LINES = {
    "always": re.compile(
        "dbus_connection_send_with_reply_and_block is error!|DBus error:.*!|"
        "method call cloud-proxy to subscribe cloud topic error!|"
        "release session: .*|release the session: .*|session id invalid: .*"),
    "channel": re.compile(
        f"{FAILED}|{DROPPED_UP.pattern}|ERROR: connection not ready |no channel to .*|"
        "Expected to find proper client connection status, but found error.. |"
        "the back end (repeats itself and hears|takes) nothing, the channel is dropped|"
        "handshake send msg failed|send cloud channel HandShake request error!|"
        "release (request|keepalive ping) send msg failed,ret=.*"),
    "service": re.compile(
        "local service bad: .*|want to write len: .*, but writen len: .*|"
        "local socket block, try again!|local socker error! release this session|"
        "system error:.* local service exit, release session: .*"),
    "bus": re.compile(
        f"{BUS_LOST.pattern}|(remote access daemon )?bus register error!|connect dbus error!|"
        "dbus connection is NULL|register to dbus error!|"
        "remote access daemon receive error message!"),
    "manager": re.compile("can not get (PK|DN|DS), result:-1")}


@dataclass(frozen=True)
class Fault:
    title: str
    begin: Callable                      # of the cell, as `end`
    end: Optional[Callable] = None
    lasts: Optional[float] = 0           # None: until it is noticed, and a little longer
    states: tuple = STATES               # in which it can happen
    cuts: tuple = STATES                 # in which it costs the channel
    seen: dict = field(default_factory=dict)  # by what line it shows, if not the channel's loss
    lines: tuple = ("channel",)
    limit_s: float = 35                  # within which it is to be noticed
    ping_s: int = 80
    keepalive_s: int = 5
    write_ms: int = 2000                 # for which a write to the channel waits
    answers: bool = True                 # new sessions can be opened meanwhile
    ends: bool = False                   # it outlasts six failed openings in a row


def _reset(cell):
    cell.world.relay.end_all(by_reset=True)


def _silence_dns(cell):
    """This shows only at the next opening, so there must be one."""
    cell.world.drop_arriving("cloud", "udp dport 53")
    if cell.state in CONNECTED:
        cell.check_undisturbed(3)
    cell.fault_begins()
    _reset(cell)
    if cell.state == "opening":
        cell.wait(FAILED, 5, cell.began)
        cell.fault_begins()


def _move_name(cell):
    cell.world.relay.refuse()
    cell.world.announce(NEW_CLOUD)
    cell.world.relay.listen(NEW_CLOUD)
    _reset(cell)


def _revive_back_end(cell):
    cell.world.start_back_end()
    cell.world.relay.listen(CLOUD)


def _revive_bus(cell):
    cell.edge.start_bus()
    cell.edge.start_manager()
    start_watchdog(cell.edge)


def _silence(*sides):
    return lambda cell: [cell.world.drop_arriving(side) for side in sides]


def _heal(cell):
    cell.world.drop_nothing()


def _step_clock(seconds):
    return lambda cell: cell.edge.step_clock(seconds)


def _stall(unread, rate):
    def change(cell):
        cell.sessions[0].down.unread, cell.sessions[0].down.rate = unread, rate
    return change


def _stop_reading(cell):
    cell.world.pause_back_end(True)
    for session in cell.sessions:
        session.up.rate *= HURRY  # soon the window is closed


def _read_again(cell):
    for session in cell.sessions:
        session.up.rate //= HURRY
    cell.world.pause_back_end(False)


def _vanish_behind_closed_window(cell):
    _stop_reading(cell)
    time.sleep(20)  # the kernel probes the window, less and less often if it is left alone
    cell.fault_begins()
    _silence("home", "cloud")(cell)


def _come_back(cell):
    _heal(cell)
    cell.world.pause_back_end(False)


def _end_service(end):
    def begin(cell):
        cell.ended = cell.sessions.pop(0)
        end(cell.ended.service)
    return begin


def _boot_without_network(cell):
    cell.world.link(False)
    cell.start()


def _every(line):
    return dict.fromkeys(STATES, line)


_HOLE = {"end": _heal, "lasts": None}
_STOPPED = {"begin": lambda cell: cell.world.pause_back_end(True),
            "end": lambda cell: cell.world.pause_back_end(False), "lasts": None}
_UNREAD = {"begin": _stop_reading, "end": _read_again, "cuts": (), "answers": False}
_GONE = {"begin": lambda cell: cell.world.kill_back_end(), "end": _revive_back_end}
_CLOCK = {"end": _step_clock(0), "lasts": 8, "cuts": ("opening",),
          "seen": {"opening": CLOCK_REFUSED}}
_SERVICE = {"cuts": (), "lines": ("service",)}
_LONG = {"states": ("idle",), "ends": True}

FAULTS = {
    "rst": Fault("RST", _reset),
    "fin": Fault("FIN", lambda cell: cell.world.relay.end_all(by_reset=False)),
    "hole": Fault("black hole both ways", _silence("home", "cloud"), **_HOLE),
    "hole-up": Fault("black hole towards the cloud", _silence("cloud"), **_HOLE),
    "hole-down": Fault("black hole from the cloud", _silence("home"), **_HOLE),
    "stopped": Fault("back end stopped (ping period 8 s)", ping_s=8, limit_s=45, **_STOPPED),
    "unread": Fault("back end stops reading for 30 s (keepalive period 1 s)", lasts=30,
                    states=("uploading",), keepalive_s=1, write_ms=10_000, **_UNREAD),
    "restarted": Fault("back end killed, back after 3 s", lasts=3, **_GONE),
    "dns-dead": Fault("name server silent, then RST", _silence_dns, _heal, None,
                      seen=_every(FAILED), limit_s=7),
    "dns-changed": Fault("name moved to another address, RST", _move_name),
    "address": Fault("gateway's address changed", lambda cell: cell.world.change_address()),
    "clock-forward": Fault("clock an hour ahead for 8 s", _step_clock(3600), **_CLOCK),
    "clock-back": Fault("clock an hour behind for 8 s", _step_clock(-3600), **_CLOCK),
    "bus": Fault("bus killed, back after 3 s", lambda cell: cell.edge.stop_bus(), _revive_bus, 3,
                 cuts=(), seen=_every(BUS_LOST), lines=("bus", "manager"), limit_s=5),
    "manager-late": Fault("configuration manager 15 s late", lambda cell: cell.start(False),
                          lambda cell: cell.edge.start_manager(), 15, ("opening",), (),
                          _every(NO_SETTINGS), ("manager",), 5),
    # Each message to it costs 60 ms, and the channel is drained before services are served again.
    "service-stalls": Fault("local service stalls for 10 s", _stall(True, FAST),
                            _stall(False, RATE), 10, ("downloading", "32 sessions"),
                            seen=_every(DROPPED_DOWN), answers=False, **_SERVICE),
    "service-closes": Fault("local service closes", _end_service(socket.socket.close),
                            states=CONNECTED, **_SERVICE),
    "service-resets": Fault("local service resets", _end_service(end_by_reset), states=CONNECTED,
                            **_SERVICE),
}
LONG_FAULTS = {
    "stopped-80": Fault("back end stopped (ping period 80 s, the default)",
                        states=("idle", "uploading"), limit_s=360, **_STOPPED),
    "unread-60": Fault("back end stops reading for 60 s, its kernel lives", states=CONNECTED,
                       lasts=60, **_UNREAD),
    "hole-unread": Fault("black hole behind a closed window", _vanish_behind_closed_window,
                         _come_back, None, ("uploading",)),
    "gone-20": Fault("back end gone for 20 s", lasts=20, **_GONE, **_LONG),
    "hole-180": Fault("black hole for 180 s", _silence("home", "cloud"), _heal, 180, **_LONG),
    "dns-90": Fault("name server silent for 90 s, RST", _silence_dns, _heal, 90,
                    seen=_every(FAILED), **_LONG),
    "boot-30": Fault("network 30 s late at boot", _boot_without_network,
                     lambda cell: cell.world.link(True), 30, ("opening",), ends=True),
}
ALL_FAULTS = {**FAULTS, **LONG_FAULTS}
STARTS_BY_ITSELF = ("manager-late", "boot-30")  # their fault is how the daemon starts


def wait_until(probe, seconds, step_s=0.01):
    """The first true result of probe(), or what it returned last."""
    deadline = time.monotonic() + seconds
    while not (result := probe()) and time.monotonic() < deadline:
        time.sleep(step_s)
    return result
