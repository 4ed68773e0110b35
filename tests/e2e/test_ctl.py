"""remote-access-ctl on a gateway: what it shows, what it switches, what its doctor finds."""
import json
import os
import signal
import subprocess
import time

import pytest

from harness.local import LocalService
from harness.network import FILTERED_ADDRESS, free_port
from harness.sandbox import EMULATOR, INSTALLED, MANAGER

SERVICE = LocalService()
FILE = [{"type": "SSH", "name": "ssh", "ip": "127.0.0.1", "port": SERVICE.port},
        {"type": "TCP", "name": "gone", "ip": "127.0.0.1", "port": free_port()}]


def ctl(gateway, *arguments):
    """(status, output) of the tool inside the gateway's sandbox."""
    done = subprocess.run(
        ["nsenter", "--target", str(gateway.daemon.pid), "--mount", "--pid", "--root", "--wd",
         *EMULATOR, f"/{INSTALLED}/bin/remote-access-ctl", *arguments],
        capture_output=True, text=True, check=False, timeout=60)
    return done.returncode, done.stdout + done.stderr


@pytest.fixture(scope="module")
def link(connect, certificates):
    return connect("main", certificates.context(), authority=certificates.authority, services=FILE)


def test_shows_and_switches(link):
    session = link.channel.open(SERVICE.port, name="ssh", kind="SSH")
    status, text = ctl(link.gateway, "status", "--json", "--thread")
    shown = json.loads(text)
    assert [s.pop("service_name") for s in shown.pop("services")] == ["gone", "ssh"]
    assert (status, shown) == (0, {"switch": "on", "channel": "up", "threadAlive": True,
                                   "sessions": {"used": 1, "free": 31}})
    status, text = ctl(link.gateway, "sessions")
    assert status == 0 and text.splitlines()[1].split()[::2] == [session, "ssh"]
    assert ctl(link.gateway, "close")[0] == 0
    link.log.wait("I", "end the cloud channel.")
    assert ctl(link.gateway, "status")[0] == 1
    status, text = ctl(link.gateway, "wait", "--connected", "--timeout", "0.5")
    assert status == 1 and "the channel is down" in text
    assert ctl(link.gateway, "open")[0] == 0
    assert ctl(link.gateway, "wait", "--connected")[0] == 0


def test_waits_no_longer_than_it_was_told_for_a_daemon_that_stands_still(link):
    os.kill(link.gateway.daemon.pid, signal.SIGSTOP)
    start = time.monotonic()
    status, _ = ctl(link.gateway, "wait", "--connected", "--timeout", "0.5")
    os.kill(link.gateway.daemon.pid, signal.SIGCONT)
    assert status == 3 and time.monotonic() - start < 4


# What is set: (finding of the doctor, exit status)
FAULTS = {
    "": ("OK    expiry    the certificate chain is valid for 29 more days", 0),
    "gw_remoteaccess_cloud_host=nowhere.test": ("FAIL  resolver", 1),
    "gw_remoteaccess_cloud_host=local.test": ("FAIL  tls       the server's certificate is not "
                                              "accepted: hostname mismatch", 1),
    f"gw_remoteaccess_cloud_host={FILTERED_ADDRESS}": ("FAIL  back end", 1),
    "gw_remoteaccess_cloud_port=1": ("FAIL  back end", 1),
    "gw_remoteaccess_cert_path=/missing.pem": ("FAIL  tls       cannot use the CA file", 1),
    "gw_remoteaccess_tls_type=0": ("WARN  tls       switched off", 0),
    "gw_system_devicesecret=": ("FAIL  settings  gw_system_devicesecret not set", 1)}


@pytest.mark.parametrize("setting", FAULTS, ids=lambda setting: setting or "none")
def test_doctor(link, setting):
    finding, status = FAULTS[setting]
    key, _, value = setting.partition("=")

    def put(text):
        status, _ = link.gateway.call(MANAGER, f"{MANAGER}.set", f"string:{key}", f"string:{text}")
        assert status == 0

    if setting:
        put(value)
    done, text = ctl(link.gateway, "doctor")
    if setting:
        put(link.gateway.config[key])
    assert (done, finding in text.replace("WARN  expiry", "OK    expiry")) == (status, True), text
    assert ("OK    lock" in text and "OK    services  ssh takes connections" in text
            and "WARN  services  gone: " in text)


def test_without_a_daemon_and_with_wrong_arguments(launch):
    gateway = launch(alone={"bus": False})["alone"]
    for command, status in {
            ("status",): 3, ("wait", "--connected", "--timeout", "0.1"): 3, ("doctor",): 1,
            (): 2, ("unknown",): 2, ("open", "--json"): 2, ("wait",): 2, ("status", "x"): 2,
            ("wait", "--connected", "--timeout", "soon"): 2, ("--help",): 0}.items():
        done, text = ctl(gateway, *command)
        assert (done, bool(text)) == (status, True), (command, text)


def test_doctor_knows_a_daemon_that_was_refused_its_name(launch):
    gateway = launch(refused={"bus": False})["refused"]
    gateway.start_bus("packaging/dbus/mbusd.conf")  # whose rules give root another part
    gateway.log.wait("W", "request well-known-name is error!")
    status, text = ctl(gateway, "doctor")
    assert status == 1 and "but a daemon runs" in text and "-> restart remote_access_daemon" in text
