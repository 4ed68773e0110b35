"""End-to-end tests of the daemon: the real program, a real bus, real peers on loopback.

RA_BUILD_DIR names the build folder whose programs are tested (build/release), RA_TIME_SCALE
stretches the time-outs for instrumented builds, RA_EMULATOR is the command that runs another
machine's programs.
"""
from types import SimpleNamespace

import pytest

from harness import network
from harness.cloud import BackEnd
from harness.local import start_echo
from harness.sandbox import Gateway, start_gateways
from harness.workspace import Workspace


class Gateways(dict):
    """Gateways by name; remembers which ones the current test has asked for."""
    used = set()

    def __getitem__(self, name):
        gateway = super().__getitem__(name)
        self.used.add(gateway)
        return gateway


def pytest_configure():
    network.enter_private_network()


def pytest_runtest_setup():
    Gateways.used.clear()


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item):
    """A failed test shows the end of the logs of the gateways that it used."""
    report = (yield).get_result()
    if report.failed:
        held = {getattr(arg, "gateway", None) for arg in getattr(item, "funcargs", {}).values()}
        for gateway in (Gateways.used | held) - {None}:
            report.sections.append((f"log of gateway {gateway.name}", gateway.log.tail()))


@pytest.fixture(scope="session")
def run(request):
    # It stays until the last report is written.
    workspace = Workspace()
    request.config.add_cleanup(lambda: workspace.__exit__(None))
    return workspace


@pytest.fixture(scope="session")
def workspace(run):
    return run.directory


@pytest.fixture(scope="session")
def certificates(run):
    return run.certificates


@pytest.fixture(scope="session")
def echo():
    return start_echo()


@pytest.fixture(scope="module")
def launch(request, workspace):
    """launch(name=options of Gateway, ...) brings gateways up together; returns them by name.

    At the module's end each daemon must still run, or have ended as its options allow, and must
    have written only proper log lines, which excludes sanitizer reports.
    """
    started = []

    def start(**wanted):
        module = request.module.__name__.removeprefix("test_")
        gateways = Gateways({name: Gateway(workspace, f"{module}-{name}", **options)
                             for name, options in wanted.items()})
        started.extend(gateways.values())
        start_gateways(gateways.values())
        return gateways

    yield start
    faults = [fault for gateway in started for fault in gateway.stop()]
    assert not faults, "\n".join(faults)


@pytest.fixture(scope="module")
def connect(launch):
    """connect(name, options of Gateway) starts one whose channel is accepted: its `gateway`,
    `back_end`, `channel` and `log`."""
    def start(name, tls=None, **options):
        back_end = BackEnd(tls=tls)
        gateway = launch(**{name: {"cloud": back_end.port, **options}})[name]
        gateway.log.wait("I", "handshake response code is 0!")
        return SimpleNamespace(gateway=gateway, back_end=back_end, channel=back_end.channel(),
                               log=gateway.log)
    return start


@pytest.fixture(scope="module", params=["plain", "tls"])
def shared_link(request, connect, certificates):
    if request.param == "plain":
        return connect("plain")
    return connect("tls", certificates.context(), authority=certificates.authority)


@pytest.fixture
def link(shared_link):
    """The module's gateway; the test must leave the same channel open and its messages whole."""
    yield shared_link
    channel = shared_link.channel
    for session in list(channel.sessions):
        channel.release(session)
    channel.settle()
    channel.unread.clear()
    assert not channel.errors
    assert len(shared_link.back_end.channels) == 1 and not channel.ws.closed
