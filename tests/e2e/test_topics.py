"""The cloud topics and the self-description, through a real bridge and a real broker."""
import itertools
import re

import dbus
import pytest

from harness.cloud import BackEnd
from harness.broker import Broker
from harness.modules import BRIDGE, DONE, FakeBridge, check_watchdog, start_watchdog
from harness.private_bus import Peer, pump
from harness.sandbox import INSTALLED, NAME
from harness.waiting import poll

SWITCH, POST, REPLY, GET = "debug/switch", "ability/post", "ability/post_reply", "ability/get"
ACCEPTED, END = ("I", "handshake response code is 0!"), ("I", "end the cloud channel.")
PUBLISH = ("I", "start to publish self info to cloud!")
UNREADABLE = ("E", "failed to read cloud commond json")
CALL_FAILED = ("W", "dbus_connection_send_with_reply_and_block is error!")
RETRY = 10  # seconds between two attempts to subscribe
SELF = '{"version":"1.2.3\n","spec":"lite"}'
ACKNOWLEDGED = '{"code":200}'
# What a bridge answers to the first subscription, and what the daemon says to that.
ODD = {"text": ('{"code":"0"}', "E", "failed to read subscribe result json"),
       "refused": ('{"code":404}', "W", "subscribe cloud topic error!result=404"),
       "number": (dbus.Int32(0), "W", "get args from method reply is error!")}


def options(name, edition, long_lived=1, **others):
    """The device is named like its gateway, so that one broker serves them all."""
    return {"files": {f"{INSTALLED}/SPECIFICATION": edition}, **others, "config": {
        "gw_system_devicename": name, "gw_system_cloud_long_connection": long_lived}}


def topic(gateway, kind):
    return f"/sys/pk1/{gateway.config['gw_system_devicename']}/edge/{kind}"


@pytest.fixture(scope="module")
def back_end():
    return BackEnd()


@pytest.fixture(scope="module")
def gateways(launch, back_end):
    made = launch(
        standard=options("standard", "a standard", 0, cloud=back_end.port),
        professional=options("professional", "a professional"),
        permanent=options("permanent", "a lite"),
        brief=options("brief", "standard", 0, cloud=BackEnd().port),  # one word is no edition
        slow=options("slow", "a lite", 0, cloud=BackEnd().port),
        raw=options("raw", "", prepare=lambda root: (
            root / INSTALLED / "VERSION").write_bytes(b"1\xff\xfe\xc3")),
        **{name: options(name, "a standard") for name in ODD})
    made["slow"].bridge = FakeBridge(made["slow"], itertools.repeat(None))
    start_watchdog(made["slow"])
    yield made
    check_watchdog(made["slow"])


@pytest.fixture(scope="module")
def broker(gateways):
    made = Broker(gateways["standard"].beside)
    made.listen()
    for name in ("standard", "professional", "permanent", "brief", "raw"):
        made.bridge(gateways[name].beside, gateways[name].address)
    return made


@pytest.fixture
def tell(broker):
    """tell(gateway, kind of topic, payload) returns the log's length when the daemon has it."""
    def send(gateway, kind, payload):
        name, mark = topic(gateway, kind), gateway.log.mark()
        assert broker.send(name, payload.encode())
        gateway.log.wait("I", f"cloud data topic:{name}, payload:{payload}", mark)
        return [line.text.startswith("cloud data topic") for line in
                gateway.log.lines[mark:]].index(True) + mark
    return send


def check_silence(gateway, mark):
    """Each answer takes the main thread once more through its loop: nothing is published."""
    peer = Peer(gateway.address)
    for _ in range(4):
        peer.call(NAME, "queryRemoteChannelState")
    assert not gateway.log.find(*PUBLISH, mark)


def test_odd_answers_lead_to_another_attempt(gateways, broker):
    bridges = {name: FakeBridge(gateways[name], [answer]) for name, (answer, *_) in ODD.items()}
    for name, bridge in bridges.items():
        poll(lambda: pump() or bridge.received[1:], 2 * RETRY + 5, "two attempts")
        assert bridge.received == 2 * [("subscribe", topic(gateways[name], SWITCH), NAME, 0)]
        line = gateways[name].log.find(*ODD[name][1:])[0]
        gateways[name].log.in_order([("I", "getConfigParams start !"), (line.level, line.text)])


@pytest.mark.parametrize("name, kinds", [
    ("standard", [SWITCH]), ("professional", [SWITCH]), ("permanent", [SWITCH, REPLY, GET]),
    ("brief", [SWITCH, REPLY, GET])])
def test_subscribes_what_the_edition_needs(gateways, broker, name, kinds):
    gateway = gateways[name]
    expected = [topic(gateway, kind) for kind in kinds]

    def subscribed():
        return re.findall(f"{NAME} is subscribed to (.+)", gateway.log_beside("bridge"))

    poll(lambda: subscribed()[len(kinds) - 1:], 2 * RETRY, lambda: gateway.log_beside("bridge"))
    assert subscribed() == expected
    if len(kinds) == 1:
        check_silence(gateway, 0)
        assert not gateway.log.find("I", re.compile("start to (open|close) cloud channel!"))


def test_switched_by_the_cloud(gateways, tell):
    gateway = gateways["standard"]
    gateway.log.wait(*ACCEPTED)
    for payload, value in (('{"status":0}', 0), ('{"status":1}', 1), ('{"a":[1],"status": 0 }', 0),
                           ('{"status":5}', 5), ('{"status":0}', 0), ('{"status":-1}', 1)):
        mark = tell(gateway, SWITCH, payload)
        gateway.log.wait(*(ACCEPTED if value else END), mark)
        gateway.log.in_order([("I", "cloud commond to remote access daemon!"),
                              ("I", f"remote access daemon switch:{value}")], mark)


def stays_open(gateway, back_end, mark):
    """Two messages pass: the proxy thread has had every chance to end the channel."""
    gateway.log.wait(*ACCEPTED)
    for _ in range(2):
        back_end.channels[-1].settle()
    return not gateway.log.find(*END, mark)


@pytest.mark.parametrize("payload", [
    '{"status":"0"}', '{"status":0', '{"state":0}', "status:0", '{"status":null}', "[0]", "{", "0"])
def test_refused_payloads_change_nothing(gateways, back_end, tell, payload):
    gateway = gateways["standard"]
    mark = tell(gateway, SWITCH, payload)
    gateway.log.wait(*UNREADABLE, mark)
    assert stays_open(gateway, back_end, mark)


@pytest.mark.parametrize("arguments", [(), ("one",), (1, "{}"), ("topic", 7), (["topic"], "{}")])
def test_odd_events_are_logged(gateways, arguments):
    gateway = gateways["standard"]
    mark = gateway.log.mark()
    Peer(gateway.address).signal(BRIDGE, "subscribe_event", *arguments, to=NAME)
    gateway.log.wait("W", "params of cloud commond is error!", mark)
    assert len(gateway.log.find("E", re.compile("DBus error:.+!"), mark)) == 1
    assert not gateway.log.find("I", re.compile("cloud data topic.*"), mark)


def test_unknown_topics_and_events_change_nothing(gateways, back_end):
    gateway = gateways["standard"]
    mark, switch, off = gateway.log.mark(), topic(gateway, SWITCH), '{"status":0}'
    peer = Peer(gateway.address)
    for name in ("", switch[:-1], switch + "/", switch.upper(), topic(gateway, POST), "x" * 200):
        peer.signal("any.interface", "subscribe_event", name, off, to=NAME)
        gateway.log.wait("W", f"cloud message is error, topic:{name}, payload:{off}", mark)
    for member in ("subscribe_events", "Subscribe_event", "subscribe"):
        peer.signal(BRIDGE, member, switch, off, to=NAME)
        gateway.log.wait("I", f"remote access daemon receive signal : {member}", mark)
    assert len(gateway.log.find("I", re.compile("cloud data topic.*"), mark)) == 6
    assert stays_open(gateway, back_end, mark)


def test_life_of_a_self_description(gateways, broker, tell):
    """With a permanent connection it is published on each pass until it is acknowledged."""
    gateway = gateways["permanent"]
    for kind, payload, published in (
            (REPLY, '{"code":"200"}', True), (REPLY, ACKNOWLEDGED, False), (REPLY, "{}", False),
            (REPLY, '{"code":500}', True), (REPLY, ACKNOWLEDGED, False), (GET, "not read", True),
            (REPLY, '{"id":"1","code":200,"data":{}}', False)):
        before = broker.heard(topic(gateway, POST), SELF)
        mark = tell(gateway, kind, payload)
        if published:
            gateway.log.wait("I", "publish self info to cloud success!", mark, count=2)
            poll(lambda: broker.heard(topic(gateway, POST), SELF) >= before + 2, 5, "published")
        else:
            check_silence(gateway, mark)
    assert gateway.log.find("I", "trigger to publish self info to cloud!")
    assert not gateway.log.find("I", "start to close cloud channel!")


def test_short_connection_is_opened_and_closed_once(gateways, broker, tell):
    gateway = gateways["brief"]
    poll(lambda: broker.heard(topic(gateway, POST), SELF), 5, "the self-description")
    mark = tell(gateway, REPLY, ACKNOWLEDGED)
    gateway.log.wait("I", "close cloud channel success!", mark)
    assert "the cloud channel is closed" in gateway.log_beside("bridge")
    check_silence(gateway, mark)
    poll(lambda: gateway.call(BRIDGE, f"{BRIDGE}.open_cloud_channel") == (0, DONE), 5, "opened")
    mark = tell(gateway, GET, "again")
    gateway.log.wait(*PUBLISH, mark, count=2)
    check_silence(gateway, tell(gateway, REPLY, ACKNOWLEDGED))
    assert not gateway.log.find("I", re.compile("start to (open|close) cloud channel!"), mark)
    for which in ("open", "close"):
        assert len(gateway.log.find("I", f"{which} cloud channel success!")) == 1


def test_version_that_is_no_text(gateways, broker):
    gateway = gateways["raw"]
    gateway.log.wait("W", "dbus set args for message error", count=3)
    assert not gateway.log.find("I", "publish self info to cloud success!")
    assert not broker.heard(topic(gateway, POST), "")
    assert Peer(gateway.address).call(NAME, "GetRemoteAccessSession", "s", "x") == 0


def test_bridge_that_does_not_answer_in_time(gateways):
    gateway = gateways["slow"]
    log, bridge, peer = gateway.log, gateway.bridge, Peer(gateway.address)
    poll(lambda: pump() or {"subscribe", "open_cloud_channel", "publish"} <= {
        call[0] for call in bridge.received}, 2 * RETRY, "all three calls")
    mark = log.mark()
    poll(lambda: pump() or log.find(*CALL_FAILED, mark)[3:], 10, "calls that time out")
    assert log.find("E", re.compile(r"DBus error:Did not receive a reply\..*"), mark)
    assert peer.call(NAME, "GetRemoteAccessSession", "s", "x") == 0
    assert not log.find("I", re.compile(".*success!"))
    bridge.received.clear()
    bridge.answers = iter(())
    expected = [("subscribe", topic(gateway, kind), NAME, 0) for kind in (SWITCH, REPLY, GET)]
    poll(lambda: pump() or len(log.find("I", re.compile(".*success!"))) > 2 and [
        call for call in bridge.received if call[0] == "subscribe"] == expected, RETRY + 5, "all")
    assert bridge.received.count(("open_cloud_channel",)) == 1
    assert ("publish", topic(gateway, POST), SELF, 0) in bridge.received
    mark = log.mark()
    for call in bridge.unanswered:
        bridge.answer(call)
    late = re.compile(r"remote access daemon receive method reply:\d+")
    poll(lambda: pump() or log.find("I", late, mark), 5, "a late answer")


def test_topics_are_subscribed_again_on_another_bus(gateways, broker):
    gateway = gateways["standard"]
    mark = gateway.log.mark()
    gateway.stop_bus()
    gateway.start_bus()
    gateway.start_manager()
    gateway.log.wait("E", re.compile(rf"DBus error:.*{BRIDGE}.*"), mark, seconds=2 * RETRY + 5)
    broker.bridge(gateway.beside, gateway.address)
    for status, line in ((0, END), (1, ACCEPTED)):
        poll(lambda: broker.send(topic(gateway, SWITCH), b'{"status":%d}' % status)
             and gateway.log.find(*line, mark), 2 * RETRY + 5, f"switched to {status}")
