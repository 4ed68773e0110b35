"""Which back ends the daemon trusts, what the log says about the others, and about those that
cannot be reached or keep it waiting."""
import re

import pytest

from harness.cloud import BackEnd
from harness.local import start_silent
from harness.network import free_port
from harness.sandbox import CA_FILE
from harness.tls import HOST
from harness.waiting import SCALE

START = ("I", "start to create cloud channel...")
NO_TLS = ("W", "Expected to find proper client connection status, but found error.. ")
NO_PLAIN = ("W", "ERROR: Expected to find proper client connection status, but found error.. ")
NOT_READY = ("W", "ERROR: connection not ready ")
FAILED, CLOSED = ("W", "cloud channel open failed"), ("I", "close cloud channel!")
UNTRUSTED = "the server's certificate is not accepted: "
BAD_CA = f"cannot use the CA file /{CA_FILE}: "
# What the back end presents, what the CA file holds, the host in the settings, and why it is
# refused, if it is.
TRUST = {
    "trusted": ("good", "ca", HOST, None),
    "wildcard": ("wildcard", "ca", f"eu.{HOST}", None),
    "name-in-subject-only": ("subject-only", "ca", HOST, None),
    "address": ("address", "ca", "127.0.0.1", None),
    "pinned": ("pinned", "pinned", HOST, None),
    "wrong-authority": ("stranger", "ca", HOST,
                        UNTRUSTED + "unable to get local issuer certificate"),
    "expired": ("expired", "ca", HOST, UNTRUSTED + "certificate has expired"),
    "not-yet-valid": ("future", "ca", HOST, UNTRUSTED + "certificate is not yet valid"),
    "wrong-name": ("wrong-name", "ca", HOST, UNTRUSTED + "hostname mismatch"),
    "not-below-wildcard": ("wildcard", "ca", HOST, UNTRUSTED + "hostname mismatch"),
    "wrong-address": ("good", "ca", "127.0.0.1", UNTRUSTED + "IP address mismatch"),
    "not-pinned": ("pinned", "ca", HOST, UNTRUSTED + "self-signed certificate"),
    "tls-1.1-only": ("old", "ca", HOST, "TLS handshake failed: .*"),
    "no-tls-there": (None, "ca", HOST, "TLS handshake failed: .*"),
    "no-ca-file": ("good", None, HOST, BAD_CA + "No such file or directory"),
    "empty-ca-file": ("good", "", HOST, BAD_CA + "no certificate or crl found"),
    "truncated-ca-file": ("good", "cut", HOST, BAD_CA + "bad end line")}
# Without TLS: the host, what the server says if there is one, and how and why it fails.
UNREACHABLE = {
    "refused": (HOST, None, NO_PLAIN, "cannot connect to 127.0.0.1 port %s: Connection refused"),
    "unreachable": ("255.255.255.255", None, NO_PLAIN, "cannot connect to 255.+ is unreachable"),
    "unknown-name": ("nobody.test", None, NO_PLAIN, "cannot resolve nobody.test: .+"),
    "refused-upgrade": (HOST, b"HTTP/1.1 403 A\x1b[2Jway\r\n\r\n", NOT_READY,
                        re.escape('the server refused the upgrade: "HTTP/1.1 403 A?[2Jway"'))}
# Whether the server does TLS, the daemon's type, why the opening fails, and between which seconds.
SILENT = {"no-websocket": (False, 0, NOT_READY, "no answer to the upgrade.*", 2.8, 4.5),
          "no-websocket-tls": (True, 1, NOT_READY, "no answer to the upgrade.*", 2.8, 4.5),
          "no-handshake": (False, 1, NO_TLS, "TLS handshake failed: no answer.*", 1, 14)}
ACCEPTED = ["any-other-type", "plain", *(case for case, row in TRUST.items() if not row[3])]


@pytest.fixture(scope="module")
def servers(certificates):
    contexts = {name: certificates.context(name) for name, *_ in TRUST.values()
                if name not in (None, "old")}
    contexts["old"] = certificates.old_context()
    return {case: BackEnd(tls=contexts.get(name)) for case, (name, *_) in TRUST.items()}


@pytest.fixture(scope="module")
def gateways(launch, certificates, servers):
    wanted = {}

    def add(case, port, host=HOST, tls=1, trusted="ca", debug=0):
        text = {None: None, "": "", "cut": certificates.authority[:300]}
        authority = text[trusted] if trusted in text else certificates.text(trusted)
        wanted[case] = {
            "cloud": port, "files": {} if authority is None else {CA_FILE: authority},
            "ends": [] if case in ACCEPTED else [1], "config": {
                "gw_remoteaccess_tls_type": tls, "gw_remoteaccess_cloud_host": host,
                "gw_remoteaccess_debug_switch": debug}}

    for case, (_, trusted, host, _) in TRUST.items():
        add(case, servers[case].port, host, trusted=trusted)
    for case, source, tls in (("any-other-type", "good", 2), ("plain", None, 0)):
        servers[case] = BackEnd(tls=certificates.context(source) if source else None)
        add(case, servers[case].port, tls=tls)
    add("debug", servers["expired"].port, debug=1)
    for case, (host, words, *_) in UNREACHABLE.items():
        add(case, start_silent(words=words) if words else free_port(), host, tls=0)
    for case, (tls, kind, *_) in SILENT.items():
        # The library says why a connection ended, but not that an open one does not get ready.
        add(case, start_silent(certificates.context() if tls else None), tls=kind,
            debug=int(case == "no-websocket"))
    return launch(**wanted)


def reasons(gateway, why):
    """The lines that say why the openings so far have failed: all the same, one for each."""
    log, config = gateway.log, gateway.config
    log.wait(*FAILED, count=2, seconds=20)
    host, port = config["gw_remoteaccess_cloud_host"], config["gw_remoteaccess_cloud_port"]
    why = why.replace("%s", str(port))
    found = log.find("W", re.compile(f"no channel to {host} port {port}: {why}"))
    assert len({line.text for line in found}) == 1, log.tail()
    assert len(log.find(*FAILED)) <= len(found) <= len(log.find(*START))
    return "W", found[0].text


@pytest.mark.parametrize("case", ACCEPTED)
def test_accepted_back_end(gateways, servers, case):
    channel = servers[case].channel()
    gateways[case].log.wait("I", "handshake response code is 0!")
    channel.settle()
    assert bool(channel.ws.transport.get_extra_info("ssl_object")) == (case != "plain")


@pytest.mark.parametrize("case", [case for case, row in TRUST.items() if row[3]])
def test_refused_back_end(gateways, servers, case):
    reason = reasons(gateways[case], TRUST[case][3])
    gateways[case].log.in_order([START, NO_TLS, reason, FAILED, CLOSED] * 2)
    assert not servers[case].channels


def test_reason_comes_from_the_library_while_debugging(gateways):
    reason = reasons(gateways["debug"], TRUST["expired"][3])
    gateways["debug"].log.in_order([START, reason, NO_TLS, FAILED, CLOSED] * 2)


@pytest.mark.parametrize("case", UNREACHABLE)
def test_no_channel_without_a_reason(gateways, case):
    *_, line, why = UNREACHABLE[case]
    gateways[case].log.in_order(
        [START, line, reasons(gateways[case], why), FAILED, CLOSED] * 2)


@pytest.mark.parametrize("case", SILENT)
def test_server_that_keeps_the_daemon_waiting(gateways, case):
    *_, line, why, least, most = SILENT[case]
    log = gateways[case].log
    failed = log.wait(*line, seconds=15)
    assert least < failed.time - log.find(*START)[0].time < most * SCALE
    log.wait("W", re.compile(f"no channel to .*: {why}"))
