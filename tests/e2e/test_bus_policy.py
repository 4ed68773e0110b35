"""The strict bus configuration on a real bus, met by several accounts."""
import os
import pathlib
import subprocess
import tempfile

import pytest

from harness.private_bus import ACCESS_DENIED, DRIVER, Peer, Processes
from harness.sandbox import BIN, FILES, MANAGER, NAME, SECRET
from harness.waiting import poll

BRIDGE, WATCHDOG, KEY = "iot.bridge.mqtt", "iot.gateway.watchdog", "gw_remoteaccess_debug_switch"
ADDRESS = "unix:abstract=mbusd-policy"  # no directory on the way that an account may not enter
ACCOUNTS = {"root": (0, []), "remote-access": (4001, []), "module": (4002, [4100]),
            "stranger": (4003, [])}
ALONE = pathlib.Path("/proc/self/uid_map").read_text().split()[2:] == ["1"]

pytestmark = pytest.mark.skipif(ALONE, reason="only root has more than one account to test with")


def peer(account, name=None):
    """A connection of this account, which the bus can see."""
    uid, groups = ACCOUNTS[account]
    os.setgroups(groups)
    os.setegid(uid)
    os.seteuid(uid)
    try:
        return Peer(ADDRESS, name)
    finally:
        os.seteuid(0)
        os.setegid(0)
        os.setgroups([])


class Bus(Processes):
    """The bus, watchdog and configuration manager; bridge and daemon are the test's own."""

    def __init__(self, directory):
        (directory / "etc").mkdir(parents=True)
        users = [f"{name}:x:{uid}:{uid}::/:\n" for name, (uid, _) in ACCOUNTS.items()]
        (directory / "etc/passwd").write_text("".join(users))
        (directory / "etc/group").write_text("gateway:x:4100:\n")
        super().__init__(directory, ADDRESS, "packaging/dbus/mbusd.conf", "bwrap",
                         "--die-with-parent", "--ro-bind", "/", "/", "--dev", "/dev",
                         "--ro-bind", directory / "etc", "/etc")
        self.start("watchdog", BIN / "gateway_watchdog", "--bus", ADDRESS)
        self.wait_for_line("watchdog", "watching the feeds")
        self.start_manager()
        self.bridge, self.daemon = peer("root", BRIDGE), peer("remote-access", NAME)

    def start_manager(self):
        self.start("manager", BIN / "gateway_config_manager", "--bus", ADDRESS,
                   "--file", self.directory / "config.txt")
        root = peer("root")
        poll(lambda: root.call(MANAGER, "get", "s", "none") == (1, ""), 5, "the manager's answer")


@pytest.fixture(scope="module")
def bus(workspace):
    made = Bus(workspace / "policy")
    yield made
    made.stop()


@pytest.mark.parametrize("name, owner", [
    (NAME, "remote-access"), (BRIDGE, "root"), (MANAGER, "root")])
def test_a_name_belongs_to_one_account(bus, name, owner):
    denied = {account for account in ACCOUNTS if peer(account).own(name) == ACCESS_DENIED}
    assert denied == set(ACCOUNTS) - {owner}


@pytest.mark.parametrize("name, permitted", [
    (NAME, {"root", "module"}), (BRIDGE, {"root", "remote-access"}),
    (MANAGER, {"root", "remote-access"})])
def test_only_permitted_accounts_call(bus, name, permitted):
    unique = peer("root").call(DRIVER, "GetNameOwner", "s", name)
    for to in (name, unique):
        denied = {account for account in ACCOUNTS
                  if peer(account).call(name, "get", "s", "x", to=to) == ACCESS_DENIED}
        assert denied == set(ACCOUNTS) - permitted, to


def test_the_daemon_s_account_reads_settings_and_sets_none(bus):
    unique = peer("root").call(DRIVER, "GetNameOwner", "s", MANAGER)
    for to in (MANAGER, unique):
        assert bus.daemon.call(MANAGER, "get", "s", "none", to=to) == (1, "")
        for member, interface in (("set", MANAGER), ("set", None), ("get", None), ("get", "a.b"),
                                  ("Get", f"{DRIVER}.Properties")):
            assert bus.daemon.call(MANAGER, member, "ss", KEY, "forged", to=to,
                                   interface=interface) == ACCESS_DENIED, (member, interface)


def test_only_root_sees_the_traffic_of_others(bus):
    for interface in (f"{DRIVER}.Debug.Stats", None):
        assert {account for account in ACCOUNTS if peer(account).call(
            DRIVER, "GetStats", interface=interface) != ACCESS_DENIED} == {"root"}


def test_only_the_bridge_delivers_signals(bus):
    unique = peer("root").call(DRIVER, "GetNameOwner", "s", NAME)
    bus.daemon.received.clear()
    for account in ACCOUNTS:
        for to in (NAME, unique, None):
            peer(account).signal(BRIDGE, "subscribe_event", "topic", f"forged by {account}", to=to)
    bus.bridge.signal(BRIDGE, "subscribe_event", "topic", "true", to=NAME)
    bus.daemon.wait(bus.daemon.received)
    assert bus.daemon.received == [("subscribe_event", "topic", "true")]


def test_the_watchdog_hears_the_daemon_and_no_stranger(bus):
    peer("stranger").signal(WATCHDOG, "feed_dog", NAME, "forged", 1)
    bus.daemon.signal(WATCHDOG, "feed_dog", NAME, "mainThread", 1)
    bus.wait_for_line("watchdog", f"mainThread of {NAME} has not been fed for 1 s")
    assert "forged" not in bus.log("watchdog")


def test_the_daemon_is_told_of_changes_after_either_end_was_away(bus):
    assert bus.daemon.call(MANAGER, "subscribe", "ssi", NAME, KEY, 1) == 0
    for value in ("1", "2"):
        bus.daemon.received.clear()
        assert peer("root").call(MANAGER, "set", "ss", KEY, value) == 0
        assert bus.daemon.wait(bus.daemon.received) == ("notify_config", KEY, value)
        bus.stop("manager")
        bus.daemon.bus.close()
        bus.start_manager()
        bus.daemon = peer("remote-access", NAME)


def test_a_changed_setting_leaves_no_warning(launch):
    """The daemon itself; on this bus its account is root's second name."""
    config = {"gw_system_cloud_long_connection": 1}  # closed
    gateway = launch(strict={"bus": False, "config": config, "files": {
        "etc/passwd": FILES["etc/passwd"] + "remote-access:x:0:0::/:\n"}})["strict"]
    gateway.start_bus("packaging/dbus/mbusd.conf", [
        "bwrap", "--die-with-parent", "--ro-bind", "/", "/", "--dev", "/dev",
        "--bind", gateway.root, gateway.root, "--ro-bind", gateway.root / "etc", "/etc"])
    gateway.start_manager()
    gateway.wait_for_name(NAME)
    poll(lambda: f"{NAME} is now told of {KEY}" in gateway.log_beside("manager"), 15,
         "the subscription")
    for count in range(1, 80):  # more than the manager waits for at a time
        setting = f"string:{KEY}", f"string:{count % 2}"
        assert gateway.call(MANAGER, f"{MANAGER}.set", *setting) == (0, "int32 0")
        gateway.log.wait("I", "receive method call :notify_config,from message bus.", count=count)
    assert not gateway.log.find("W", "remote access daemon receive error message!")


def test_a_bus_in_a_stranger_s_folder_gets_nothing():
    with tempfile.TemporaryDirectory(prefix="ra-strange-", dir="/tmp") as top:
        os.chmod(top, 0o1777)
        folder, settings = pathlib.Path(top, "var/run/mbusd"), pathlib.Path(top, "settings")
        settings.write_text(f"gw_system_devicesecret={SECRET}\n")
        stranger = ["setpriv", "--reuid=daemon", "--regid=daemon", "--clear-groups"]
        subprocess.run([*stranger, "mkdir", "-p", folder], check=True)
        address = f"unix:path={folder}/mbusd_socket"
        bus = subprocess.Popen([*stranger, "dbus-daemon", "--session", "--nofork", "--nopidfile",
                                f"--address={address}"])
        try:
            poll((folder / "mbusd_socket").exists, 5, "the stranger's bus")
            for program, arguments, status in (
                    ("gateway_config_manager", ("--file", settings), 1),
                    ("gateway_mqtt_bridge", ("--host", "127.0.0.1", "--port", "1"), 1),
                    ("gateway_watchdog", (), 1), ("remote-access-ctl", ("status",), 3)):
                done = subprocess.run([BIN / program, "--bus", address, *arguments], timeout=10,
                                      capture_output=True, text=True, check=False)
                said = done.stdout + done.stderr
                assert done.returncode == status, (program, said)
                assert f"{top}/var belongs to uid 1," in said, (program, said)
        finally:
            bus.kill()
            bus.wait()
