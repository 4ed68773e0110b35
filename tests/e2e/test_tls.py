"""Which back ends the daemon trusts, and what it does with those that keep it waiting."""
import pytest

from harness.cloud import BackEnd
from harness.local import start_silent
from harness.sandbox import CA_FILE
from harness.tls import HOST
from harness.waiting import SCALE

START = ("I", "start to create cloud channel...")
NO_TLS = ("W", "Expected to find proper client connection status, but found error.. ")
NOT_READY = ("W", "ERROR: connection not ready ")
# The server's certificate, if it has one, and configuration beside the default.
ACCEPTED = {
    "trusted": ("good", {}), "any-other-type": ("good", {"gw_remoteaccess_tls_type": 2}),
    "plain": (None, {"gw_remoteaccess_tls_type": 0})}
REFUSED = {
    "wrong-authority": ("stranger", {}), "expired": ("expired", {}), "no-tls-there": (None, {}),
    "wrong-name": ("wrong-name", {}),
    "address": ("good", {"gw_remoteaccess_cloud_host": "127.0.0.1"}),
    "no-authority": ("good", {"gw_remoteaccess_cert_path": "/tmp/missing.pem"})}
# Whether the server does TLS, the daemon's type: the line, and between which seconds it comes.
SILENT = {"no-websocket": (False, 0, NOT_READY, 2.8, 4.5),
          "no-websocket-tls": (True, 1, NOT_READY, 2.8, 4.5),
          "no-handshake": (False, 1, NO_TLS, 1, 14)}


@pytest.fixture(scope="module")
def servers(certificates):
    return {case: BackEnd(tls=certificates.context(name) if name else None)
            for case, (name, _) in {**ACCEPTED, **REFUSED}.items()}


@pytest.fixture(scope="module")
def gateways(launch, certificates, servers):
    configs = {case: config for case, (_, config) in {**ACCEPTED, **REFUSED}.items()}
    ports = {case: server.port for case, server in servers.items()}
    for case, (tls, kind, *_) in SILENT.items():
        configs[case] = {"gw_remoteaccess_tls_type": kind}
        ports[case] = start_silent(certificates.context() if tls else None)
    default = {"gw_remoteaccess_tls_type": 1, "gw_remoteaccess_cloud_host": HOST}
    return launch(**{case: {
        "cloud": ports[case], "files": {CA_FILE: certificates.authority},
        "ends": [] if case in ACCEPTED else [1], "config": {**default, **config}}
        for case, config in configs.items()})


@pytest.mark.parametrize("case", ACCEPTED)
def test_accepted_back_end(gateways, servers, case):
    channel = servers[case].channel()
    gateways[case].log.wait("I", "handshake response code is 0!")
    channel.settle()
    assert bool(channel.ws.transport.get_extra_info("ssl_object")) == (case != "plain")


@pytest.mark.parametrize("case", REFUSED)
def test_refused_back_end(gateways, servers, case):
    log, failed = gateways[case].log, ("W", "cloud channel open failed")
    log.wait(*failed, count=2, seconds=20)
    log.in_order([START, NO_TLS, failed, ("I", "close cloud channel!")] * 2)
    assert not servers[case].channels


@pytest.mark.parametrize("case", SILENT)
def test_server_that_keeps_the_daemon_waiting(gateways, case):
    *_, line, least, most = SILENT[case]
    log = gateways[case].log
    failed = log.wait(*line, seconds=15)
    assert least < failed.time - log.find(*START)[0].time < most * SCALE
