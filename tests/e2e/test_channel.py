"""The life of a channel: handshake, keepalive, loss, back-off, and the switch."""
import time

import pytest

from harness.cloud import (DATA_DOWN, HANDSHAKE_ID, NEW_SESSION, PING, PONG, RELEASE, RESPONSE,
                           VERIFY, BackEnd)
from harness.local import LocalService
from harness.network import free_port
from harness.waiting import SCALE, poll

START, END = ("I", "start to create cloud channel..."), ("I", "end the cloud channel.")
ACCEPTED = ("I", "handshake response code is 0!")
FAILED = ("W", "cloud channel open failed")
PING_LINE = "session keepalive ping header:,keepalive accumulate number:{}"


@pytest.fixture(scope="module")
def back_ends():
    return {"silent": BackEnd(code=None), "off": BackEnd(), "scripted": BackEnd(code=None),
            "pong": BackEnd(), "no-pong": BackEnd(pong=False), "idle": BackEnd()}


@pytest.fixture(scope="module")
def gateways(launch, back_ends):
    options = {name: {"cloud": back_end.port} for name, back_end in back_ends.items()}
    options["nobody"] = {"cloud": free_port(), "ends": [1]}
    for name in ("pong", "no-pong"):
        options[name]["config"] = {"gw_remoteaccess_ping_period": 1}
    options["off"]["config"] = {"gw_system_cloud_long_connection": 1}
    return launch(**options)


def test_nothing_is_answered_before_the_handshake_is_accepted(gateways, back_ends):
    channel, log = back_ends["scripted"].channel(), gateways["scripted"].log
    for msg_type in (NEW_SESSION, RELEASE, VERIFY, DATA_DOWN, PONG):
        channel.send(msg_type, b"{}", "early")
    for payload in (b'{"message": "x"}', b'{"code": "0"}', b"", b'{"code": -5}', b'{"code": 0}'):
        channel.send(RESPONSE, payload, HANDSHAKE_ID)
    channel.settle()
    assert not channel.unread
    log.in_order([("W", "cloud channel does not finish handshake!")] * 4 + [
        ("W", "recv keepalive pong, but cloud channel does not finish handshake!"),
        ("E", 'cloud response packet error: {"message": "x"} '),
        ("E", 'cloud response packet error: {"code": "0"} '),
        ("E", "cloud response packet error:  "), ("I", "handshake response code is 5!"), ACCEPTED])


@pytest.mark.parametrize("end", ["close", "abort"])
def test_lost_channel_ends_its_sessions_and_is_reopened(gateways, back_ends, end):
    back_end, log = back_ends["idle"], gateways["idle"].log
    old, number, service = back_end.channel(), len(back_end.channels), LocalService()
    old = back_end.channel(number - 1)
    log.wait(*ACCEPTED, count=number)
    mark = log.mark()
    old.open(service.port)
    with service.accept() as connection:
        if end == "close":
            old.close()
        else:
            old.transport("abort")
        assert connection.recv(1) == b""
    channel = back_end.channel(number)
    log.wait(*ACCEPTED, mark)
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
    started = log.wait(*START, count=2)
    assert started.time - ended.time < 1 * SCALE  # no back-off
    log.in_order([("I", PING_LINE.format(n)) for n in (1, 2, 3, 4)] + [END, START])
    assert [message.type for message in channel.unread] == [PING] * 4


def check_waits(waits):
    """Whole seconds are compared, and the closed state looks every 300 ms."""
    assert all(0.25 < wait < 1.7 * SCALE for wait in waits[:4]), waits
    assert all(1.25 < wait < 2.7 * SCALE for wait in waits[4:]), waits


def test_refused_connections_end_the_daemon(gateways):
    gateway = gateways["nobody"]
    assert gateway.daemon.wait_exit(30) == 1
    starts = [line.time for line in gateway.log.find(*START)]
    assert len(starts) == len(gateway.log.find(*FAILED)) == 6
    check_waits([later - earlier for earlier, later in zip(starts, starts[1:])])
    last = gateway.log.lines[-1]
    assert (last.level, last.text) == (
        "E", "=======retry to connect remote debug channel error! service exit!=======")


def test_unanswered_handshakes_back_off_but_never_end_the_daemon(gateways, back_ends):
    log = gateways["silent"].log
    back_ends["silent"].channel(7, seconds=60)
    starts, ends = ([line.time for line in log.find(*which)] for which in (START, END))
    assert all(2 <= end - start < 5 * SCALE for start, end in zip(starts, ends)), (starts, ends)
    check_waits([start - end for start, end in zip(starts[1:], ends)])
    assert gateways["silent"].daemon.status is None


def test_switched_off_from_the_start(gateways, back_ends):
    log = gateways["off"].log
    known = log.wait("I", "cloud long connection:1").time
    poll(lambda: time.time() > known + 4, 5, "time for several passes")
    log.wait("I", "remote proxy thread start!")
    assert not log.find(*START) and not back_ends["off"].channels
