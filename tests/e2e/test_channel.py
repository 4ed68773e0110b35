"""The life of a channel: handshake, keepalive, loss, back-off, and the switch."""
import ctypes
import re
import subprocess
import time

import pytest

from harness.cloud import DATA_DOWN, HANDSHAKE_ID, NEW_SESSION, PING, PONG, RELEASE, RESPONSE, VERIFY, BackEnd
from harness.local import LocalService
from harness.network import free_port
from harness.waiting import SCALE, poll

START, END = ("I", "start to create cloud channel..."), ("I", "end the cloud channel.")
PING_LINE = "session keepalive ping header:,keepalive accumulate number:{}"
EACH_SECOND = {"gw_remoteaccess_ping_period": 1}


@pytest.fixture(scope="module")
def back_ends():
    return {"silent": BackEnd(code=None), "refusing": BackEnd(code=7), "scripted": BackEnd(code=None),
            "pong": BackEnd(), "no-pong": BackEnd(pong=False), "off": BackEnd(), "recurring": BackEnd()}


@pytest.fixture(scope="module")
def gateways(launch, back_ends):
    options = {name: {"cloud": back_end.port} for name, back_end in back_ends.items()}
    options["nobody"] = {"cloud": free_port(), "ends": [1]}
    options["pong"]["config"] = options["no-pong"]["config"] = EACH_SECOND
    options["off"]["config"] = {"gw_system_cloud_long_connection": 1}
    return launch(**options)


def times(gateway, line):
    return [found.time for found in gateway.log.find(*line)]


def test_nothing_is_answered_before_the_handshake_is_accepted(gateways, back_ends):
    channel, log = back_ends["scripted"].channel(), gateways["scripted"].log
    for msg_type in (NEW_SESSION, RELEASE, VERIFY, DATA_DOWN):
        channel.send(msg_type, b"{}" if msg_type != RELEASE else b"", "early")
    channel.send(PONG)
    for payload in (b'{"message": "x"}', b'{"code": "0"}', b"", b'{"code": -5}', b'{"code": 0}'):
        channel.send(RESPONSE, payload, HANDSHAKE_ID)
    channel.settle()
    assert not channel.unread
    log.in_order([("W", "cloud channel does not finish handshake!")] * 4
                 + [("W", "recv keepalive pong, but cloud channel does not finish handshake!"),
                    ("E", 'cloud response packet error: {"message": "x"} '),
                    ("E", 'cloud response packet error: {"code": "0"} '), ("E", "cloud response packet error:  "),
                    ("I", "handshake response code is 5!"), ("I", "handshake response code is 0!")])


def test_identifiers_recur_after_every_start(gateways, back_ends):
    """They come from a generator that is never seeded; the first one drawn names a session."""
    libc = ctypes.CDLL(None)
    libc.srand(1)
    letters = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789"
    channel = back_ends["recurring"].channel()
    gateways["recurring"].log.wait("I", "handshake response code is 0!")
    service = LocalService()
    session = channel.open(service.port)
    assert session == "".join(letters[libc.rand() % 62] for _ in range(30))
    channel.release(session)


@pytest.mark.parametrize("end", ["close", "abort"])
def test_lost_channel_ends_its_sessions_and_is_reopened(gateways, back_ends, end):
    back_end, log = back_ends["recurring"], gateways["recurring"].log
    log.wait("I", "handshake response code is 0!", count=len(back_end.channels))
    number, mark, service = len(back_end.channels), log.mark(), LocalService()
    old = back_end.channels[-1]
    old.open(service.port)
    with service.accept() as connection:
        getattr(old, end)()
        try:
            assert connection.recv(1) == b""
        except ConnectionResetError:
            pass
    channel = back_end.channel(number)
    log.wait("I", "handshake response code is 0!", mark)
    channel.settle()
    assert not old.unread and not channel.unread
    log.in_order([END, ("I", "close cloud channel!"), START], mark)
    assert len(log.find(*END, mark)) == 1


def test_pong_clears_the_ping_count(gateways, back_ends):
    channel, log = back_ends["pong"].channel(), gateways["pong"].log
    for _ in range(6):
        ping = channel.expect(PING)
        assert len(ping.id) == 30 and (ping.token, ping.payload) == ("", b"")
    assert not log.find("I", PING_LINE.format(2)) and not log.find(*END)


def test_fourth_unanswered_ping_drops_the_channel(gateways, back_ends):
    channel, log = back_ends["no-pong"].channel(), gateways["no-pong"].log
    ended = log.wait(*END, seconds=15)
    log.in_order([("I", PING_LINE.format(n)) for n in (1, 2, 3, 4)] + [END, START])
    assert [m.type for m in channel.unread] == [PING] * 4
    assert log.wait(*START, count=2).time - ended.time < 1 * SCALE  # no back-off
    back_ends["no-pong"].channel(1)


def test_refused_connections_end_the_daemon(gateways):
    gateway = gateways["nobody"]
    assert gateway.daemon.wait_exit(30) == 1
    starts = times(gateway, START)
    gaps = [later - earlier for earlier, later in zip(starts, starts[1:])]
    # Whole seconds are compared, and the closed state looks every 300 ms.
    assert len(gaps) == 5 and all(0.25 < gap < 1.7 * SCALE for gap in gaps[:4]), gaps
    assert 1.25 < gaps[4] < 2.7 * SCALE, gaps
    assert len(gateway.log.find("W", "cloud channel open failed")) == 6
    last = gateway.log.lines[-1]
    assert (last.level, last.text) == (
        "E", "=======retry to connect remote debug channel error! service exit!=======")


def test_refused_handshake_is_dropped_after_three_seconds(gateways):
    log = gateways["refusing"].log
    answered = log.wait("I", "handshake response code is 7!")
    assert 2 <= log.wait(*END).time - answered.time < 5 * SCALE


def test_unanswered_handshakes_back_off_but_never_end_the_daemon(gateways, back_ends):
    gateway = gateways["silent"]
    log = gateway.log
    back_ends["silent"].channel(7, seconds=60)
    starts, ends = times(gateway, START), times(gateway, END)
    assert all(2 <= end - start < 5 * SCALE for start, end in zip(starts, ends)), (starts, ends)
    waits = [start - end for start, end in zip(starts[1:], ends)]
    assert all(0.25 < wait < 1.7 * SCALE for wait in waits[:4]), waits
    assert all(1.25 < wait < 2.7 * SCALE for wait in waits[4:7]), waits
    assert gateway.daemon.status is None
    assert not log.find("W", "cloud channel open failed")


def test_switched_off_from_the_start(gateways, back_ends):
    log = gateways["off"].log
    known = log.wait("I", "cloud long connection:1").time
    poll(lambda: time.time() > known + 4, 5, "time for several passes")
    log.wait("I", "remote proxy thread start!")
    assert not log.find(*START) and not back_ends["off"].channels


def test_keepalive_probes_of_the_channel(gateways, back_ends):
    """They start after three times the configured 5 s, not after the system's two hours."""
    gateways["pong"].log.wait("I", "handshake response code is 0!")
    listing = subprocess.run(["ss", "-tno", f"dport = :{back_ends['pong'].port}"],
                             capture_output=True, text=True, check=True).stdout
    timer = re.search(r"timer:\(keepalive,([\d.]+)(m?sec),", listing)
    assert timer and (timer[2] == "msec" or float(timer[1]) <= 15), listing
