"""The first message on a channel: identity, signature and the offered services."""
import hashlib
import hmac
import json

import pytest

from harness.cloud import HANDSHAKE_ID, BackEnd
from harness.network import DEFAULT_GATEWAY
from harness.sandbox import CONFIG_DIR, INSTALLED, SECRET

SPECIFICATION = f"{INSTALLED}/SPECIFICATION"


def service(name, ip="127.0.0.1", port=22, kind="SSH"):
    return {"type": kind, "name": name, "ip": ip, "port": port}


def listed(*elements):
    return {f"{CONFIG_DIR}/remote_terminal.json": json.dumps(elements)}


DEFAULT = [
    service("openapi_brimlock", port=9999, kind="HTTPS"),
    service("http_localhost", port=80, kind="HTTP"), service("ssh_hostmachine", "172.17.0.1"),
    service("sftp_hostmachine", "172.17.0.1", kind="SFTP"), service("ssh_localhost"),
    service("sftp_localhost", kind="SFTP")]
NUMBERED = [service(f"n{n}", port=n) for n in range(25)]
LIMIT = ("W", "number of services is limited: 20")
MIXED = [
    7, "text", service("first"), ["nested"], {"type": "SSH", "ip": "127.0.0.1", "port": 22},
    {"name": "a", "ip": "127.0.0.1", "port": 22}, {"type": "SSH", "name": "a", "port": 22},
    service("a", port="80"), service("a", port=65536), service("a", port=-1),
    {"TYPE": "HTTP", "Name": "other case", "iP": "10.0.0.1", "PORT": 65535.9},
    service("n" * 40, "1" * 30, 0, "t" * 17)]
MIXED_LINES = [("W", f'serviceInfo "{key}"  is invalid') for key in ("name", "type", "ip", "port")
               ] + [("W", "service port must <= 65535")] * 2
MIXED_KEPT = [service("n" * 31, "1" * 23, 0, "t" * 15),
              service("other case", "10.0.0.1", 65535, "HTTP"), service("first")]
HOSTS = [service("ssh_hostmachine", "172.17.0.1"), service("sftp_hostmachine_2", "1.2.3.4"),
         service("ssh_hostmachin", "1.2.3.4")]
HOSTS_ROUTED = [service("ssh_hostmachin", "1.2.3.4"),
                service("sftp_hostmachine_2", DEFAULT_GATEWAY),
                service("ssh_hostmachine", DEFAULT_GATEWAY)]

# name: (files, configuration, services in the handshake, log lines in their order)
CASES = {
    "default": ({}, {}, DEFAULT, [("W", "can not get service list, using default value")]),
    "empty": (listed(), {}, [service("ssh_localhost")], []),
    "twenty": (listed(*NUMBERED[:20]), {}, NUMBERED[19::-1], [LIMIT]),
    "more": (listed(*NUMBERED), {}, NUMBERED[19::-1], [LIMIT]),
    "mixed": (listed(*MIXED), {}, MIXED_KEPT, MIXED_LINES),
    "routed": ({**listed(*HOSTS), SPECIFICATION: "gateway professional\n"}, {}, HOSTS_ROUTED,
               [("I", f"host machine addr: {DEFAULT_GATEWAY}")]),
    "secret-63": ({}, {"gw_system_devicesecret": "s" * 63}, DEFAULT, []),
    "secret-64": ({}, {"gw_system_devicesecret": "s" * 64}, DEFAULT, []),
    "long": ({}, {"gw_system_productkey": "p" * 40, "gw_system_devicename": "d" * 40}, DEFAULT, []),
}


def sign(name, key, secret, timestamp):
    if len(secret) > 63:
        return "0" * 64  # the signature's key is the secret with its NUL, and 64 bytes at most
    text = f"clientIdquorvex_iotdeviceName{name}productKey{key}timestamp{timestamp}"
    return hmac.new(secret.encode(), text.encode(), hashlib.sha256).hexdigest()


def handshake_payload(config, services, timestamp):
    name = config.get("gw_system_devicename", "dev1")[:36]
    key = config.get("gw_system_productkey", "pk1")[:36]
    signature = sign(name, key, config.get("gw_system_devicesecret", SECRET), timestamp)
    elements = ",".join(
        f'{{"service_type":"{s["type"]}","service_name":"{s["name"]}",'
        f'"service_ip":"{s["ip"]}","service_port":{s["port"]}}}' for s in services)
    return (f'{{"uuid": "quorvex_iot","product_key": "{key}","device_name": "{name}",'
            f'"version":"2.1","IP":"","MAC":"","token":"", "service_meta": [{elements}],'
            f'"signmethod": "hmacsha256", "sign": "{signature}"}}').encode()


@pytest.fixture(scope="module")
def back_ends():
    return {case: BackEnd() for case in CASES}


@pytest.fixture(scope="module")
def gateways(launch, back_ends):
    options = {case: {"cloud": back_ends[case].port, "files": files, "config": config}
               for case, (files, config, _, _) in CASES.items()}
    # The refused signature key is reported on the error stream, not in the log.
    options["secret-64"]["strays"] = r"API check 'key_len <= 64' failed at hmac_sha256 \(.*:\d+\)"
    return launch(**options)


@pytest.mark.parametrize("case", CASES)
def test_handshake(gateways, back_ends, case):
    _, config, services, lines = CASES[case]
    channel, log = back_ends[case].channel(), gateways[case].log
    shake = channel.handshake
    assert (shake.id, shake.token, channel.path) == (HANDSHAKE_ID, "", "/")
    # The clock is read once for the signature and once more for the header.
    assert shake.payload in [handshake_payload(config, services, shake.timestamp - late)
                             for late in (0, 1)]
    log.in_order(lines)
    assert len(log.find(*LIMIT)) == lines.count(LIMIT)
    log.wait("I", "handshake response code is 0!")
    assert len(log.strays) == (case == "secret-64")
