"""Which back ends the daemon trusts, and what it does with those that keep it waiting."""
import ssl

import pytest

from harness.cloud import BackEnd, SilentServer
from harness.sandbox import CA_PATH, CONFIG_DIR
from harness.tls import HOST
from harness.waiting import SCALE

NO_TLS = ("W", "Expected to find proper client connection status, but found error.. ")
NOT_READY = ("W", "ERROR: connection not ready ")
ACCEPTED = {  # certificate of the server, configuration beside the default
    "right authority": ("good", {}),
    "any other non-zero type": ("good", {"gw_remoteaccess_tls_type": 2}),
    "plain": (None, {"gw_remoteaccess_tls_type": 0}),
}
REFUSED = {  # likewise
    "wrong authority": ("stranger", {}),
    "expired": ("expired", {}),
    "wrong name": ("wrong-name", {}),
    "address that the certificate lacks": ("good", {"gw_remoteaccess_cloud_host": "127.0.0.1"}),
    "no authority file": ("good", {"gw_remoteaccess_cert_path": CA_PATH + ".missing"}),
    "server without TLS": (None, {}),
}
SILENT = {  # TLS at the server, type at the daemon: line, and after how many seconds
    "no WebSocket over TCP": (False, 0, NOT_READY, 2.8, 4.5),
    "no WebSocket over TLS": (True, 1, NOT_READY, 2.8, 4.5),
    "no TLS": (False, 1, NO_TLS, 1, 14),
}


def tag(case):
    return case.replace(" ", "-")


@pytest.fixture(scope="module")
def servers(certificates):
    contexts = {name: certificates.context(name) for name in ("good", "stranger", "expired", "wrong-name")}
    servers = {case: BackEnd(tls=contexts.get(certificate))
               for case, (certificate, _) in {**ACCEPTED, **REFUSED}.items()}
    return servers | {case: SilentServer(tls=contexts["good"] if tls else None)
                      for case, (tls, *_) in SILENT.items()}


@pytest.fixture(scope="module")
def gateways(launch, certificates, servers):
    configs = {case: config for case, (_, config) in {**ACCEPTED, **REFUSED}.items()}
    configs |= {case: {"gw_remoteaccess_tls_type": kind} for case, (_, kind, *_) in SILENT.items()}
    files = {f"{CONFIG_DIR}/ca.pem": certificates.authority()}
    options = {tag(case): {
        "cloud": servers[case].port, "files": files, "ends": [] if case in ACCEPTED else [1],
        "config": {"gw_remoteaccess_tls_type": 1, "gw_remoteaccess_cloud_host": HOST, **config}}
        for case, config in configs.items()}
    return launch(**options)


@pytest.mark.parametrize("case", ACCEPTED)
def test_accepted_back_end(gateways, servers, case):
    channel = servers[case].channel()
    gateways[tag(case)].log.wait("I", "handshake response code is 0!")
    channel.settle()
    if ACCEPTED[case][0]:
        assert channel.ws.transport.get_extra_info("ssl_object").version() in ("TLSv1.2", "TLSv1.3")


@pytest.mark.parametrize("case", REFUSED)
def test_refused_back_end(gateways, servers, case):
    log = gateways[tag(case)].log
    log.wait("W", "cloud channel open failed", count=2, seconds=20)
    log.in_order([NO_TLS if REFUSED[case][0] or case == "server without TLS" else NOT_READY,
                  ("W", "cloud channel open failed"), ("I", "close cloud channel!")] * 2)
    assert not servers[case].channels


@pytest.mark.parametrize("case", SILENT)
def test_server_that_keeps_the_daemon_waiting(gateways, case):
    *_, line, least, most = SILENT[case]
    log = gateways[tag(case)].log
    failed = log.wait(*line, seconds=15)
    started = log.find("I", "start to create cloud channel...")[0]
    assert least < failed.time - started.time < most * SCALE
    log.wait("W", "cloud channel open failed")


def test_old_protocol_version_is_refused(launch, certificates):
    context = certificates.context()
    context.set_ciphers("ALL:@SECLEVEL=0")
    context.minimum_version, context.maximum_version = ssl.TLSVersion.TLSv1, ssl.TLSVersion.TLSv1_1
    back_end = BackEnd(tls=context)
    log = launch(old={"cloud": back_end.port, "files": {f"{CONFIG_DIR}/ca.pem": certificates.authority()},
                      "ends": [1], "config": {"gw_remoteaccess_tls_type": 1, "gw_remoteaccess_cloud_host": HOST},
                      })["old"].log
    log.wait(*NO_TLS)
    assert not back_end.channels
