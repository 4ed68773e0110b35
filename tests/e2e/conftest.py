"""End-to-end tests of the daemon: the real program, a real bus, real peers on loopback.

RA_BUILD_DIR names the build folder whose programs are tested, RA_TIME_SCALE stretches the
time-outs for instrumented builds.
"""
import pathlib
import shutil
import tempfile
from dataclasses import dataclass, field

import pytest

from harness import network
from harness.cloud import BackEnd, Channel
from harness.local import EchoService
from harness.sandbox import CONFIG_DIR, Gateway, start_gateways
from harness.tls import HOST, Certificates

def pytest_configure():
    network.enter_private_network()


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item):
    """A failed test shows the end of the logs of the gateways that it used."""
    report = (yield).get_result()
    if not report.failed:
        return
    held = [getattr(arg, "gateway", arg) for arg in getattr(item, "funcargs", {}).values()]
    held += [value for arg in held if isinstance(arg, (dict, tuple)) for value in
             (arg.values() if isinstance(arg, dict) else arg)]
    used = {gateway.name: gateway for gateway in held if isinstance(gateway, Gateway) and gateway.daemon}
    for name, gateway in used.items():
        report.sections.append((f"log of gateway {name}", gateway.log.tail(40 if len(used) == 1 else 12)))


@pytest.fixture(scope="session")
def workspace():
    # Short, since the path of a bus socket may have no more than 107 characters.
    directory = pathlib.Path(tempfile.mkdtemp(prefix="ra-e2e-", dir="/tmp"))
    yield directory
    shutil.rmtree(directory)


@pytest.fixture(scope="session")
def certificates(workspace):
    directory = workspace / "tls"
    directory.mkdir()
    return Certificates(directory)


@pytest.fixture(scope="session")
def echo():
    return EchoService()


@pytest.fixture(scope="module")
def launch(request, workspace):
    """launch({name: options of Gateway}) brings gateways up together and returns them by name.

    At the module's end each daemon must still run, or have ended as its options allow, and must
    have left nothing but proper log lines: a sanitizer's report is none.
    """
    started = []

    def start(**wanted):
        module = request.module.__name__.removeprefix("test_")
        gateways = {name: Gateway(workspace, f"{module}-{name}", **options)
                    for name, options in wanted.items()}
        started.extend(gateways.values())
        start_gateways(gateways.values())
        return gateways

    yield start
    faults = [fault for gateway in started for fault in gateway.stop()]
    assert not faults, "\n".join(faults)


@dataclass
class Link:
    """A gateway whose channel to a back end is accepted."""
    gateway: Gateway
    back_end: BackEnd
    channel: Channel = field(default=None)


def _tls_options(certificates):
    return {"files": {f"{CONFIG_DIR}/ca.pem": certificates.authority()},
            "config": {"gw_remoteaccess_tls_type": 1, "gw_remoteaccess_cloud_host": HOST}}


@pytest.fixture(scope="module", params=["plain", "tls"])
def shared_link(request, launch, certificates):
    tls = request.param == "tls"
    back_end = BackEnd(tls=certificates.context() if tls else None)
    options = _tls_options(certificates) if tls else {}
    gateway = launch(**{request.param: {"cloud": back_end.port, **options}})[request.param]
    link = Link(gateway, back_end, back_end.channel())
    gateway.log.wait("I", "handshake response code is 0!")
    yield link
    back_end.close()


@pytest.fixture
def link(shared_link):
    """The module's gateway; the test must leave the same channel open and nothing unread."""
    link, channel = shared_link, shared_link.channel
    yield link
    for session in list(channel.sessions):
        channel.release(session)
    channel.settle()
    channel.unread.clear()
    assert not channel.errors
    assert len(link.back_end.channels) == 1 and not channel.closed
