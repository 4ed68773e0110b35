"""The private bus: configuration, registration, loss of the bus, watchdog feeds."""
import hashlib
import re
import ssl

import pytest

from harness.cloud import DATA_DOWN, BackEnd
from harness.private_bus import Peer
from harness.sandbox import CONFIG, CONFIG_DIR, MANAGER, NAME, SECRET
from harness.waiting import SCALE, poll

CERTIFICATE = f"{CONFIG_DIR}/brimlock_remote_access.pem"
DEFAULTS = [  # key, how its failure line names it, its default
    ("cloud_port", "port, using", 443), ("tls_type", "tls type,using", 1),
    ("debug_switch", "debug switch,using", 0), ("trans_timeout", "trans timeout,using", 2000),
    (None, None, None), ("tcp_keepalive_period", "tcp keepalive,using", 5),
    ("ping_period", "ping period,using", 80)]
UNSET = {key: None for key in CONFIG if "device" not in key and "product" not in key}
RETRY = 10  # seconds between two readings of the configuration


@pytest.fixture(scope="module")
def back_ends():
    return {name: BackEnd() for name in ("main", "no-bus", "no-secret")}


@pytest.fixture(scope="module")
def gateways(launch, back_ends):
    ports = {name: {"cloud": back_end.port} for name, back_end in back_ends.items()}
    return launch(**{
        "main": {**ports["main"], "watched": True}, "no-bus": {**ports["no-bus"], "bus": False},
        "no-secret": {**ports["no-secret"], "config": {"gw_system_devicesecret": None}},
        "stock": {"bus": False}, "no-manager": {"manager": False}, "defaults": {"config": UNSET}})


def test_values_are_logged_in_their_order(gateways, back_ends):
    gateway = gateways["main"]
    back_ends["main"].channel()
    order = [f"{key} : {value}" for key, value in gateway.config.items()]
    order[2] = f"gw_system_devicesecret : {SECRET[:5]}***************"
    order[9] = "cloud long connection:0"
    gateway.log.in_order([("I", text) for text in ["getConfigParams start !", *order]])


def test_defaults_are_logged_in_their_order(gateways):
    log = gateways["defaults"].log
    log.wait("I", "gw_remoteaccess_ping_period : 80")
    host = log.find("I", re.compile(r"gw_remoteaccess_cloud_host : .*\.invalid"))[0].text
    order = ["can not get cert path,using default value, result:1",
             f"create ca root file done:  /{CERTIFICATE}.",
             f"gw_remoteaccess_cert_path : /{CERTIFICATE}",
             "can not get host, using default value, result:1", host]
    for key, says, value in DEFAULTS:
        order += [f"can not get {says} default value, result:1",
                  f"gw_remoteaccess_{key} : {value}"] if key else [
            "can not get cloud long connection flag !"]
    log.in_order([("I", text) for text in order])
    pem = (gateways["defaults"].root / CERTIFICATE).read_bytes()
    assert len(pem) == 1282 and pem.count(b"\r\n") == pem.count(b"\n") == 21
    assert hashlib.sha256(ssl.PEM_cert_to_DER_cert(pem.decode())).hexdigest() == (
        "ebd41040e4bb3ec742c9e381d31ef2a41a48b6685c96e7cef3c1df6cd4331c99")


def test_unknown_members_get_no_reply(gateways):
    gateway = gateways["main"]
    gateway.wait_for_name(NAME)
    status, output = gateway.call(NAME, "any.interface.NoSuchMethod", path="/any", timeout_ms=1500)
    assert status != 0 and "NoReply" in output
    gateway.log.wait("I", "receive method call :NoSuchMethod,from message bus.")
    gateway.log.wait("I", "remote access daemon receive signal : NameAcquired")


def test_watchdog_feeds(gateways):
    """Both threads feed every 5 s and announce 20 s, also while calls that take seconds wait."""
    feed = re.compile(
        r"signal time=([\d.]+) sender=\S+ -> \S.*? path=/iot/gateway/remote_access_daemon; "
        r"interface=iot\.gateway\.watchdog; member=feed_dog\s+"
        rf'string "{re.escape(NAME)}"\s+string "(\w+)"\s+int32 20\n')

    def times(thread):
        feeds = feed.findall(gateways["main"].log_beside("feeds"))
        return [float(at) for at, name in feeds if name == thread]

    poll(lambda: times("mainThread"), 5, "the first feed")
    peer = Peer(gateways["main"].address)
    for answers in [peer.begin(NAME, "queryRemoteThreadRunState", seconds=60) for _ in range(12)]:
        assert "state" in peer.wait(answers)
    for thread in ("mainThread", "remoteAccessProxyThread"):
        poll(lambda thread=thread: times(thread)[2:], 20, f"three feeds of {thread}")
        gaps = [later - earlier for earlier, later in zip(times(thread), times(thread)[1:])]
        assert all(4 < gap < 8 * SCALE for gap in gaps), gaps


def test_bus_that_comes_late(gateways, back_ends):
    gateway = gateways["no-bus"]
    gateway.log.wait("W", "register to dbus error!")
    gateway.log.wait("W", "dbus connection is NULL")
    gateway.start_bus()
    gateway.start_manager()
    gateway.wait_for_name(NAME)
    back_ends["no-bus"].channel(seconds=RETRY + 10)


def test_the_longest_message_of_a_stock_bus_is_answered(gateways):
    gateway = gateways["stock"]
    gateway.start_bus("/usr/share/dbus-1/session.conf")
    gateway.wait_for_name(NAME)
    peer = Peer(gateway.address)
    for _ in range(2):
        assert "state" in peer.call(NAME, "queryRemoteChannelState", "s", "x" * (31 << 20))


def test_missing_secret_is_asked_for_again(gateways, back_ends):
    gateway = gateways["no-secret"]
    gateway.log.wait("W", "can not get DS, result:1")
    assert not gateway.log.find("I", re.compile("gw_remoteaccess_.*"))
    assert gateway.call(MANAGER, f"{MANAGER}.set", "string:gw_system_devicesecret",
                        f"string:{SECRET}") == (0, "int32 0")
    back_ends["no-secret"].channel(seconds=RETRY + 10)
    reads = [line.time for line in gateway.log.find("I", "getConfigParams start !")]
    assert all(RETRY - 1.5 < later - earlier for earlier, later in zip(reads, reads[1:])), reads


def test_missing_manager(gateways):
    gateways["no-manager"].log.wait("W", "can not get PK, result:-1")


def test_channel_and_sessions_outlive_the_bus(gateways, back_ends, echo):
    gateway, channel = gateways["main"], back_ends["main"].channel()
    gateway.log.wait("I", "handshake response code is 0!")
    session = channel.open(echo)
    for number in (1, 2):
        mark = gateway.log.mark()
        gateway.stop_bus()
        gateway.log.wait("W", "connection local dbus error!", mark)
        channel.send(DATA_DOWN, b"without a bus", token=session)
        assert channel.collect(session, 13) == [b"without a bus"]
        gateway.start_bus()
        gateway.start_manager()
        gateway.wait_for_name(NAME)
        gateway.log.wait("I", "release old dbus connection!", mark)
        gateway.call(NAME, f"a.b.Again{number}", path="/", timeout_ms=700)
        gateway.log.wait("I", f"receive method call :Again{number},from message bus.", mark)
    assert len(back_ends["main"].channels) == 1 and not channel.ws.closed
