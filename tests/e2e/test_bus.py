"""The private bus: configuration, registration, loss of the bus, watchdog feeds."""
import hashlib
import re
import ssl

import pytest

from harness.cloud import DATA_DOWN, BackEnd
from harness.sandbox import CONFIG_DIR, MANAGER, NAME, SECRET
from harness.waiting import poll

CERTIFICATE = f"{CONFIG_DIR}/brimlock_remote_access.pem"
KEYS = [  # key, and what "can not get" it says, its default
    ("gw_remoteaccess_cloud_port", "port, using", "443"), ("gw_remoteaccess_tls_type", "tls type,using", "1"),
    ("gw_remoteaccess_debug_switch", "debug switch,using", "0"),
    ("gw_remoteaccess_trans_timeout", "trans timeout,using", "2000"), (None, None, None),
    ("gw_remoteaccess_tcp_keepalive_period", "tcp keepalive,using", "5"),
    ("gw_remoteaccess_ping_period", "ping period,using", "80")]
UNSET = {key: None for key, _, _ in KEYS if key} | {
    "gw_remoteaccess_cert_path": None, "gw_remoteaccess_cloud_host": None, "gw_system_cloud_long_connection": None}
RETRY = 10  # seconds between two readings of the configuration


@pytest.fixture(scope="module")
def back_ends():
    return {name: BackEnd() for name in ("main", "no-bus", "no-secret")}


@pytest.fixture(scope="module")
def gateways(launch, back_ends):
    return launch(**{
        "main": {"cloud": back_ends["main"].port, "watched": True,
                 "config": {"gw_remoteaccess_trans_timeout": "700 ms", "gw_remoteaccess_debug_switch": "none"}},
        "no-bus": {"cloud": back_ends["no-bus"].port, "bus": False},
        "no-secret": {"cloud": back_ends["no-secret"].port, "config": {"gw_system_devicesecret": None}},
        "defaults": {"config": UNSET},
        "certificate": {"config": UNSET, "files": {CERTIFICATE: "whatever"}}})


def test_given_values_are_logged_in_their_order(gateways, back_ends):
    gateway = gateways["main"]
    back_ends["main"].channel()
    values = [(key, value) for key, value in gateway.config.items() if "long" not in key]
    order = [f"{key} : {value}" for key, value in values]
    order[2] = f"gw_system_devicesecret : {SECRET[:5]}***************"
    assert order[8].startswith("gw_remoteaccess_trans_timeout")
    order.insert(9, "cloud long connection:0")
    gateway.log.in_order([("I", text) for text in ["getConfigParams start !", *order]])


def test_defaults_are_logged_in_their_order(gateways):
    log = gateways["defaults"].log
    log.wait("I", "gw_remoteaccess_ping_period : 80")
    host = next(line.text for line in log.lines if line.text.startswith("gw_remoteaccess_cloud_host : "))
    assert host.endswith(".invalid")
    order = ["can not get cert path,using default value, result:1", f"create ca root file done:  /{CERTIFICATE}.",
             f"gw_remoteaccess_cert_path : /{CERTIFICATE}",
             "can not get host, using default value, result:1", host]
    for key, says, value in KEYS:
        order += [f"can not get {says} default value, result:1", f"{key} : {value}"] if key else [
            "can not get cloud long connection flag !"]
    log.in_order([("I", text) for text in order])
    log.wait("I", "remote proxy thread start!")
    assert not log.find("I", "start to create cloud channel...")  # a long connection starts closed


def test_default_certificate(gateways):
    pem = (gateways["defaults"].root / CERTIFICATE).read_bytes()
    assert len(pem) == 1282 and pem.count(b"\r\n") == pem.count(b"\n") == 21
    assert hashlib.sha256(ssl.PEM_cert_to_DER_cert(pem.decode())).hexdigest() == (
        "ebd41040e4bb3ec742c9e381d31ef2a41a48b6685c96e7cef3c1df6cd4331c99")
    untouched = gateways["certificate"]
    untouched.log.wait("I", f"ca root file already exsited:  /{CERTIFICATE}.")
    assert (untouched.root / CERTIFICATE).read_text() == "whatever"


def test_unknown_members_get_no_reply(gateways):
    gateway = gateways["main"]
    gateway.wait_for_name(NAME)
    status, output = gateway.call(NAME, "any.interface.NoSuchMethod", path="/anywhere", timeout_ms=1500)
    assert status != 0 and "NoReply" in output
    gateway.log.wait("I", "receive method call :NoSuchMethod,from message bus.")
    gateway.log.wait("I", "remote access daemon receive signal : NameAcquired")


def test_watchdog_feeds(gateways):
    """Both threads feed, at most every 5 s, and announce 20 s."""
    gateway = gateways["main"]
    feed = re.compile(
        r"signal time=([\d.]+) sender=\S+ -> \S.*? serial=\d+ path=/iot/gateway/remote_access_daemon; "
        r"interface=iot\.gateway\.watchdog; member=feed_dog\s+"
        rf'string "{re.escape(NAME)}"\s+string "(\w+)"\s+int32 20\n')

    def feeds(thread):
        return [float(at) for at, name in feed.findall(gateway.feeds()) if name == thread]

    for thread in ("mainThread", "remoteAccessProxyThread"):
        times = poll(lambda thread=thread: (t := feeds(thread))[2:] and t, 20, f"three feeds of {thread}")
        assert all(4 < later - earlier for earlier, later in zip(times, times[1:])), times
    assert len(feed.findall(gateway.feeds())) == gateway.feeds().count("member=feed_dog")


def test_bus_that_comes_late(gateways, back_ends):
    gateway = gateways["no-bus"]
    gateway.log.wait("W", "register to dbus error!")
    gateway.log.wait("W", "dbus connection is NULL")
    gateway.start_bus()
    gateway.start_manager()
    gateway.wait_for_name(NAME)
    back_ends["no-bus"].channel(seconds=RETRY + 10)
    times = [line.time for line in gateway.log.find("I", "getConfigParams start !")]
    assert times[1] - times[0] > RETRY - 1.5


def test_missing_secret_is_asked_for_again(gateways, back_ends):
    gateway = gateways["no-secret"]
    gateway.log.wait("W", "can not get DS, result:1")
    assert not gateway.log.find("I", re.compile("gw_remoteaccess_.*"))
    status, output = gateway.call(MANAGER, f"{MANAGER}.set", "string:gw_system_devicesecret", f"string:{SECRET}")
    assert (status, output) == (0, "int32 0")
    gateway.config["gw_system_devicesecret"] = SECRET
    back_ends["no-secret"].channel(seconds=RETRY + 10)
    times = [line.time for line in gateway.log.find("I", "getConfigParams start !")]
    assert all(RETRY - 1.5 < later - earlier for earlier, later in zip(times, times[1:])), times


def test_missing_manager(launch):
    gateway = launch(unmanaged={"manager": False})["unmanaged"]
    gateway.log.wait("W", "can not get PK, result:-1")


def test_channel_and_sessions_outlive_the_bus(gateways, back_ends, echo):
    gateway, channel = gateways["main"], back_ends["main"].channel()
    gateway.wait_for_name(NAME)
    session = channel.open(echo.port)
    for round_ in range(2):
        mark = gateway.log.mark()
        gateway.stop_bus()
        gateway.log.wait("W", "connection local dbus error!", mark)
        channel.send(DATA_DOWN, b"without a bus", token=session)
        assert channel.collect(session, 13) == [b"without a bus"]
        gateway.start_bus()
        gateway.start_manager()
        gateway.wait_for_name(NAME)
        gateway.log.wait("I", "release old dbus connection!", mark)
        assert gateway.call(NAME, f"a.b.Again{round_}", path="/", timeout_ms=700)[0] != 0
        gateway.log.wait("I", f"receive method call :Again{round_},from message bus.", mark)
    assert len(back_ends["main"].channels) == 1 and not channel.closed
