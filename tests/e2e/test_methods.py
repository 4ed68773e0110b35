"""The bus methods, called by independent clients."""
import json
import os
import re
import subprocess

import dbus
import pytest

from harness.cloud import BackEnd
from harness.local import LocalService, push_until, start_echo
from harness.modules import check_watchdog, start_watchdog
from harness.network import FILTERED_ADDRESS
from harness.private_bus import DRIVER, Peer
from harness.sandbox import MANAGER, NAME
from harness.waiting import poll

INTROSPECTION = (
    ' <!DOCTYPE node PUBLIC "-//freedesktop//DTD D-BUS Object Introspection 1.0//EN" '
    '"http://www.freedesktop.org/standards/dbus/1.0/introspect.dtd"> <!-- dbus-sharp 0.8.1 --> '
    '<node>   <interface name="org.freedesktop.DBus.Introspectable">     '
    '<method name="Introspect">       <arg name="data" direction="out" type="s" />     </method>   '
    '</interface> </node>')
STATE = '{{"code": 0, "message": "success", "data": {{"state": {}}}}}'
DOCUMENT = '{{"code":0,"message":"success","data":{{{}}}}}'
NO_SESSIONS, NO_SERVICES = DOCUMENT.format('"sessionList":[]'), DOCUMENT.format("")
DEBUG, TIMEOUT = "gw_remoteaccess_debug_switch", "gw_remoteaccess_trans_timeout"
ACCEPTED, END = ("I", "handshake response code is 0!"), ("I", "end the cloud channel.")
# A name is kept up to 31 bytes, which end inside this one's last character.
CUT, SHOWN, ECHO = "n" * 30 + "\u00e4", "n" * 30 + "?", start_echo()
FILE = [{"type": "TCP", "name": name, "ip": "127.0.0.1", "port": ECHO} for name in (CUT, "other")]
LISTED = DOCUMENT.format('"serviceList":[' + ",".join(
    f'{{"service_type":"TCP","service_name":"{name}","service_ip":"127.0.0.1",'
    f'"service_port":{ECHO}}}' for name in ("other", SHOWN)) + "]")


@pytest.fixture(scope="module")
def gateways(launch):
    return launch(unset={"manager": False}, shaking={"cloud": BackEnd(code=None).port},
                  opening={"config": {"gw_remoteaccess_cloud_host": FILTERED_ADDRESS}, "ends": [1]})


@pytest.fixture(scope="module")
def link(connect):
    made = connect("main", services=FILE)
    start_watchdog(made.gateway)
    made.peer = Peer(made.gateway.address)
    made.call = lambda *call, **options: made.peer.call(NAME, *call, **options)
    yield made
    check_watchdog(made.gateway)


def take_next_channel(link, act):
    """The one that the gateway opens after this act, once it is accepted."""
    count = len(link.log.find(*ACCEPTED))
    act()
    link.log.wait(*ACCEPTED, count=count + 1, seconds=10)
    link.channel = link.back_end.channel(count)


ANSWERS = [
    ("Introspect", "remote access module method introspect to be called!", INTROSPECTION),
    ("OpenRemoteAccess", "open remote-access channel method to be called !", 0),
    ("queryRemoteChannelState", "query remote Access State method to be called !", STATE.format(1)),
    ("queryEdgeServicesAvailable", "query edge services available method to be called !", LISTED),
    ("queryRemoteThreadRunState", "query proxy thread run state method to be called !",
     STATE.format(1)),
    ("queryAllSessionInfo", "receive method call :queryAllSessionInfo,from message bus.",
     NO_SESSIONS)]


@pytest.mark.parametrize("member, line, answer", ANSWERS, ids=[row[0] for row in ANSWERS])
def test_answers_whatever_path_interface_and_unread_arguments(link, member, line, answer):
    assert len(INTROSPECTION) == 352
    mark = link.log.mark()
    for place, arguments in ((NAME, ()), ("no.such.place", ("iav", 7, [dbus.Int32(1)]))):
        assert link.peer.call(place, member, *arguments, to=NAME) == answer
    assert link.peer.bus.call_blocking(NAME, "/", None, member, "", ()) == answer
    shown = subprocess.run(["busctl", "--json=short", f"--address={link.gateway.address}", "call",
                            NAME, "/a", "b.c", member], capture_output=True, check=True).stdout
    kind = "i" if answer == 0 else "s"
    assert json.loads(shown) == {"type": kind, "data": [answer]}
    assert len(link.log.find("I", line, mark)) == 4
    assert not link.log.find(*END)


def test_unknown_members_get_no_reply(link):
    members = ["introspect", "Introspect2", "queryAllSession", "Get", "SubscribeEvent"]
    answers = [link.peer.begin(NAME, member, seconds=1) for member in members]
    assert [link.peer.wait(answer) for answer in answers] == [f"{DRIVER}.Error.NoReply"] * 5
    for member in members:
        link.log.wait("I", f"receive method call :{member},from message bus.")


@pytest.mark.parametrize("call", [
    ("GetRemoteAccessSession",), ("GetRemoteAccessSession", "i", 1),
    ("GetRemoteAccessSession", "as", ["id"]), ("notify_config",), ("notify_config", "s", DEBUG),
    ("notify_config", "si", DEBUG, 1), ("notify_config", "is", 1, "1")])
def test_wrong_arguments_are_refused(link, call):
    mark = link.log.mark()
    assert link.call(*call) == -1
    link.log.in_order([("W", "dbus_message_get_args() failed")], mark)
    assert len(link.log.find("E", re.compile("DBus error:.+!"), mark)) == 1
    assert not link.log.find("I", re.compile("config .*"), mark)


@pytest.mark.parametrize("key, value, answer", [
    (DEBUG, "abc", 0), (TIMEOUT, "70000", 0), (TIMEOUT, "-1", 0), (DEBUG, "", 0),
    ("gw_remoteaccess_ping_period", "1", -1), (DEBUG + "2", "1", -1), (DEBUG[:-1], "1", -1),
    ("", "", -1)])
def test_two_keys_can_change(link, key, value, answer):
    mark = link.log.mark()
    assert link.call("notify_config", "sss", key, value, "unread") == answer
    line = ("I", f"config {key} : {value}") if answer == 0 else ("W", f"key error {key}")
    link.log.in_order([("I", "syncConfigParam method to be called !"), line], mark)


def bucket(session):
    value = 5381
    for byte in session.encode():
        value = value * 33 + byte
    return value % 2**32 % 32


def test_sessions_are_listed_in_the_order_of_the_table(link):
    """By bucket, the newest first; one that is in no catalogue has an empty name."""
    names = [(CUT, SHOWN), ("other", "other"), ("unlisted", "")]
    shown = {link.channel.open(ECHO, name=names[n % 3][0]): names[n % 3][1] for n in range(32)}
    order = sorted(reversed(shown), key=bucket)
    text = link.call("queryAllSessionInfo")
    sockets = re.findall(r'"socket":(\d+),', text)
    assert text == DOCUMENT.format('"sessionList":[' + ",".join(
        f'{{"socket":{fd},"sessionId":"{session}","serviceName":"{shown[session]}"}}'
        for fd, session in zip(sockets, order)) + "]")
    assert len({os.readlink(f"/proc/{link.gateway.daemon.pid}/fd/{fd}") for fd in sockets
                if int(fd) > 2}) == 32
    assert {link.call("GetRemoteAccessSession", "s", session) for session in shown} == {-1}
    for other in ("", order[0][:-1], order[0] + "x", order[0].swapcase(), "\u00e4" * 50000):
        assert link.call("GetRemoteAccessSession", "s", other) == 0
    assert link.call("GetRemoteAccessSession", "si", order[0], 1) == -1
    for session in order:
        link.channel.release(session)
        assert link.call("GetRemoteAccessSession", "s", session) == 0
    assert link.call("queryAllSessionInfo") == NO_SESSIONS


def test_calls_while_sessions_come_and_go(link):
    kept = {link.channel.open(ECHO) for _ in range(4)}
    for _ in range(40):
        asked = [link.peer.begin(NAME, "queryAllSessionInfo") for _ in range(4)]
        session = link.channel.open(ECHO)
        asked += [link.peer.begin(NAME, "queryAllSessionInfo") for _ in range(4)]
        link.channel.release(session)
        for answer in map(link.peer.wait, asked):
            listed = {each["sessionId"] for each in json.loads(answer)["data"]["sessionList"]}
            assert listed in (kept, kept | {session})
        assert link.call("GetRemoteAccessSession", "s", session) == 0
    assert {link.call("GetRemoteAccessSession", "s", session) for session in kept} == {-1}


def test_open_and_close_act_once(link):
    """Asked all the time while the channel comes and goes."""
    def reaches(state):
        asked = [link.peer.begin(NAME, member) for member in (
            "queryAllSessionInfo", "queryEdgeServicesAvailable", "queryRemoteChannelState")]
        sessions, services, reached = map(link.peer.wait, asked)
        assert json.loads(sessions)["code"] == 0 and services == LISTED
        return reached == STATE.format(state)

    def reopen():
        assert link.call("OpenRemoteAccess") == 0
        poll(lambda: reaches(1), 10, "open")

    for _ in range(5):
        session, mark = link.channel.open(ECHO), link.log.mark()
        for _ in range(2):
            assert link.call("CloseRemoteAccess") == 0
            poll(lambda: reaches(0), 10, "closed")
        poll(lambda: link.channel.ws.closed, 10, "the back end's end of the channel")
        assert link.call("queryAllSessionInfo") == NO_SESSIONS
        assert link.call("GetRemoteAccessSession", "s", session) == 0
        take_next_channel(link, reopen)
        assert len(link.log.find(*END, mark)) == 1


def test_debug_switch_acts_on_the_open_channel(link):
    """The lines of the WebSocket library appear, and disappear, with the channel as it is."""
    def lose_channel():
        mark = link.log.mark()
        take_next_channel(link, link.channel.close)
        return (link.log.find("W", re.compile("the server closed the channel: 1000.*"), mark)
                + link.log.find("D", f"connected to 127.0.0.1 port {link.back_end.port}", mark))

    assert not lose_channel()
    for value, lines in (("1", 2), ("0", 0)):
        mark = link.log.mark()
        assert link.peer.call(MANAGER, "set", "ss", DEBUG, value) == 0
        link.log.wait("I", f"config {DEBUG} : {value}", mark)
        for _ in range(2):  # the pass that takes the first message may have begun before
            link.channel.settle()
        assert len(lose_channel()) == lines


def test_transfer_timeout_is_stored_only(link):
    """A write to a back end that does not read still gives up after the 500 ms of the start."""
    assert link.call("notify_config", "ss", TIMEOUT, "10000") == 0
    service = LocalService()
    session, failure = link.channel.open(service.port), re.compile("send to cloud failed! .*")
    connection, mark = service.accept(), link.log.mark()
    link.channel.transport("pause_reading")

    failed = push_until(connection, lambda: link.log.find("W", failure, mark))[0]
    before = link.log.lines[link.log.lines.index(failed) - 1]
    assert 0.4 < failed.time - before.time < 5
    link.channel.transport("resume_reading")
    connection.close()
    link.channel.release(session)


@pytest.mark.parametrize("name, services, running", [
    ("opening", True, 0), ("shaking", True, 1), ("unset", False, 0)])
def test_before_the_channel_is_open(gateways, name, services, running):
    """The proxy thread does not run while it connects, and has not started without a configuration:
    the answer takes the whole 3 s."""
    gateway = gateways[name]
    peer, mark = Peer(gateway.address), gateway.log.mark()
    if services:
        gateway.log.wait("I", "start to create cloud channel...", mark, seconds=20)
        mark = gateway.log.mark()
    assert peer.call(NAME, "queryRemoteChannelState") == STATE.format(0)
    assert peer.call(NAME, "queryRemoteThreadRunState") == STATE.format(running)
    assert not gateway.log.find(*END, mark)
    listed = peer.call(NAME, "queryEdgeServicesAvailable")
    assert '"service_name":"ssh_localhost"' in listed if services else listed == NO_SERVICES
    assert peer.call(NAME, "queryAllSessionInfo") == NO_SESSIONS
    assert peer.call(NAME, "GetRemoteAccessSession", "s", "x") == 0
    assert peer.call(NAME, "notify_config", "ss", DEBUG, "0") == 0
