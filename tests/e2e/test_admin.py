"""The administrator's commands: an installation, and the life of a device beside the running back
end."""
import asyncio
import json
import os
import re
import signal
import ssl
import stat
import subprocess
import time

import pytest
from websockets.legacy import client

from harness.network import free_port
from harness.processes import ProcessGroup
from harness.sandbox import BIN
from harness.waiting import SCALE, run
from test_store import ACCEPTED, REFUSED, handshake

PROGRAM = BIN / "remote_access_backend"
LISTED = {"version": 7, "devices": [
    {"device_secret": "s1", "note": {"b": [1.5, None], "a": "ä"}, "product_key": "pk1",
     "device_name": "z"},
    {"product_key": "pk1", "device_name": "a", "device_secret": "s2", "labels": {"site": "berlin"}},
    {"product_key": "pk2", "device_name": "a", "device_secret": "s3", "labels": {"site": "bonn"}}],
    "end": True}


def admin(*arguments, status=0, text=None, devices=None):
    done = subprocess.run(
        [PROGRAM, *arguments, *(("--devices", devices) if devices else ())], input=text,
        capture_output=True, text=True, timeout=30 * SCALE, check=False)
    assert done.returncode == status, done.stderr
    return done.stdout if status == 0 else done.stderr


@pytest.fixture(name="devices")
def fixture_devices(tmp_path):
    path = tmp_path / "devices.json"
    path.write_text(json.dumps(LISTED, indent="\t", ensure_ascii=False) + "\n")
    path.chmod(0o640)
    return path


def listed(path):
    """What stands in the file, with its order."""
    return json.dumps(json.loads(path.read_text()))


class Installation:
    """Made by `init`, with its own listener; started on demand."""

    def __init__(self, folder):
        self.folder, self.group, self.starts = folder / "here", ProcessGroup(folder), 0
        self.port = free_port()
        self.said = admin("init", self.folder, "--name", "gw.test", "--name", "192.0.2.1",
                          "--listen", f"127.0.0.1:{self.port}", "--operator", "anna")
        conf = self.folder / "backend.conf"
        conf.write_text(re.sub("^api=.*$", f'api="127.0.0.1:{free_port()}"', conf.read_text(),
                               flags=re.M))

    def start(self):
        self.starts += 1
        self.group.start("program", PROGRAM, "--config", self.folder / "backend.conf")
        self.group.wait_for_line("program", "listening on", self.starts)

    def admin(self, *arguments, **options):
        return admin("--config", self.folder / "backend.conf", *arguments, **options)

    def connect(self, name, secret, host="gw.test"):
        async def send():
            trusted = ssl.create_default_context(cafile=self.folder / "ca.pem")
            trusted.verify_flags |= ssl.VERIFY_X509_STRICT
            link = await client.connect(f"wss://127.0.0.1:{self.port}/", ssl=trusted,
                                        server_hostname=host, ping_interval=None)
            await link.send(handshake(name, secret))
            answer = await asyncio.wait_for(link.recv(), 5 * SCALE)
            return link, json.loads(answer.partition(b"\r\n\r\n")[2])
        return send()


@pytest.fixture(name="made")
def fixture_made(tmp_path):
    made = Installation(tmp_path)
    yield made
    made.group.stop()


def test_a_trial_takes_three_commands(made):
    folder = made.folder
    token = (folder / "operator.token").read_text().strip()
    assert re.fullmatch("rat_[A-Za-z0-9_-]{43}", token) and token in made.said
    assert f"--config {folder}/backend.conf" in made.said
    secret = {"ca.key", "backend.key", "devices.json", "operators.json", "operator.token"}
    for path in folder.iterdir():
        assert stat.S_IMODE(path.stat().st_mode) == (0o600 if path.name in secret else 0o644)
    before = {path: path.read_bytes() for path in folder.iterdir()}
    (folder / "ca.key").unlink()
    assert "exists already: nothing was changed" in admin("init", folder, status=1)
    del before[folder / "ca.key"]
    assert {path: path.read_bytes() for path in folder.iterdir()} == before
    assert "no host name" in admin("init", folder / "x", "--name", "a b", status=2)
    assert not (folder / "x").exists()
    made.start()
    settings = made.admin("device", "add", "dev1", "--product", "pk1", "--print-settings")
    settings = dict(line.split("=", 1) for line in settings.splitlines() if line[0] != "#")
    assert settings.pop("gw_system_devicesecret") in (folder / "devices.json").read_text()
    assert settings == {
        "gw_system_productkey": "pk1", "gw_system_devicename": "dev1",
        "gw_remoteaccess_cloud_host": "gw.test", "gw_remoteaccess_cloud_port": str(made.port),
        "gw_remoteaccess_cert_path": "/etc/remote-access/ca.pem", "gw_remoteaccess_tls_type": "1"}


def test_a_device_from_its_registration_to_its_end(made):
    made.start()
    secret_of = lambda: json.loads(
        (made.folder / "devices.json").read_text())["devices"][0]["device_secret"]

    async def live():
        made.admin("device", "add", "dev1", "--product", "pk1", "--secret-stdin", text="s1\n")
        first, answer = await made.connect("dev1", "s1", "localhost")
        assert answer == ACCEPTED
        made.admin("device", "rotate", "dev1", "--keep-old", f"{int(6 * SCALE)}s")
        end = time.time() + 6 * SCALE
        assert "valid until" in made.admin("device", "rotate", "dev1", status=1)
        new, answer = await made.connect("dev1", secret_of())
        assert answer == ACCEPTED
        await asyncio.wait_for(first.wait_closed(), 5 * SCALE)  # replaced, not cut off
        await new.close()
        await asyncio.sleep(1.1)  # a signature counts once
        old, answer = await made.connect("dev1", "s1", "192.0.2.1")
        assert answer == ACCEPTED and time.time() < end
        made.group.wait_for_line("program", "used its old secret, valid until 20")
        await asyncio.sleep(end + 1 - time.time())
        assert (await made.connect("dev1", "s1"))[1] == REFUSED
        made.admin("device", "rotate", "dev1", "--keep-old", "0")
        await asyncio.wait_for(old.wait_closed(), 5 * SCALE)
        assert "old_secret" not in (made.folder / "devices.json").read_text()
        last, answer = await made.connect("dev1", secret_of())
        assert answer == ACCEPTED
        made.admin("device", "remove", "dev1")
        await asyncio.wait_for(last.wait_closed(), 5 * SCALE)
    run(live())
    assert "removed from the registry" in made.group.log("program")


def test_tokens(made):
    made.start()
    path = made.folder / "operators.json"
    token = made.admin("token", "anna", "--label", "laptop", "--days", "1").strip()
    assert re.fullmatch("rat_[A-Za-z0-9_-]{43}", token) and token not in path.read_text()
    made.group.wait_for_line("program", "files read again")
    assert "already" in made.admin("token", "anna", "--label", "laptop", status=1)
    assert "no operator" in made.admin("token", "ben", "--label", "laptop", status=1)
    made.admin("token", "anna", "--remove", "laptop")
    assert [entry["label"] for entry in json.loads(path.read_text())["operators"][0]["tokens"]] \
        == ["init"]


def test_edits_keep_what_they_do_not_mean(devices):
    before = devices.read_text()
    admin("device", "add", "new", "--product", "pk1", "--label", "site=berlin", devices=devices)
    entry = json.loads(devices.read_text())["devices"][-1]
    assert re.fullmatch("[A-Za-z0-9_-]{43}", entry["device_secret"])
    admin("device", "remove", "new", devices=devices)
    assert devices.read_text() == before
    assert stat.S_IMODE(devices.stat().st_mode) == 0o640
    admin("device", "label", "z", "pk2:a", "site=köln", "rack=", devices=devices)
    admin("device", "label", "z", "rack-", "none-", devices=devices)
    wanted = json.loads(json.dumps(LISTED))
    wanted["devices"][0]["labels"] = {"site": "köln"}
    wanted["devices"][2]["labels"] = {"site": "köln", "rack": ""}
    assert listed(devices) == json.dumps(wanted)
    real = devices.rename(devices.with_name("real"))
    devices.symlink_to(real.name)
    admin("device", "rotate", "z", devices=devices)
    assert devices.is_symlink()
    assert list(json.loads(real.read_text())["devices"][0]) == [
        "device_secret", "old_secret", "old_secret_until", "note", "product_key", "device_name",
        "labels"]


@pytest.mark.parametrize("arguments, fault, status", [
    (("add", "z", "--product", "pk1"), "pk1:z is registered already", 1),
    (("add", "y", "y", "--product", "pk1"), "pk1:y is registered already", 1),
    (("add", "a b", "--product", "pk1"), "letters, digits, _ and -", 2),
    (("add", "x" * 37, "--product", "pk1"), "1 to 36", 2),
    (("add", "y", "--product", "pk1", "--label", "site"), "is no LABEL=VALUE", 2),
    (("add", "y", "--product", "pk1", "--label", "site=\n"), "would not be usable: devices[3].labe",
     1),
    (("add", "y", "--product", "pk1", "--secret-stdin"), "1 to 63 bytes", 1),
    (("add", "x", "y", "--product", "pk1", "--secret-stdin"), "is for one device", 2),
    (("add", "y", "--product", "pk1", "--print-settings"), "required", 1),
    (("remove", "a"), "several devices are named a", 1),
    (("remove", "nobody"), "no device is named nobody", 1),
    (("remove", "z", "pk1:a"), "2 devices are meant", 1),
    (("remove", "--where", "site=*"), "2 devices are meant", 1),
    (("remove", "--where", "site=paris"), "no device has these labels", 1),
    (("remove", "z", "--where", "site=*"), "name the devices, or", 2),
    (("remove",), "name the devices, or", 2),
    (("rotate", "z", "--keep-old", "7"), "is no time", 2),
    (("rotate", "z", "--keep-old", "99999999d"), "is no time", 2),
    (("label", "z"), "say what to change", 2),
    (("label", "z", "=v"), "is no LABEL=VALUE", 2),
    (("list", "nothing*"), "no such device", 1),
    ((), "subcommand is required", 2)])
def test_what_cannot_be_done_changes_nothing(devices, arguments, fault, status):
    before = devices.stat()
    assert fault in admin("device", *arguments, status=status, text="", devices=devices)
    assert devices.stat().st_ino == before.st_ino and os.listdir(devices.parent) == [devices.name]


def test_a_broken_file_is_not_touched(devices):
    devices.write_text('{"devices":[{"product_key":"a","product_key":"b"}]}')
    assert "devices[0].product_key: stands there twice" in admin(
        "device", "add", "y", "--product", "pk1", status=1, devices=devices)


def test_bulk_verbs_mean_labels(devices):
    dry = admin("device", "remove", "--where", "site=b*", "--dry-run", devices=devices)
    assert dry == "would have removed pk1:a\nwould have removed pk2:a\n"
    assert listed(devices) == json.dumps(LISTED)
    admin("device", "label", "--where", "site=bonn", "site=berlin", "ring=1", devices=devices)
    shown = json.loads(admin("device", "list", "--json", "--label", "site=berlin",
                             devices=devices))
    assert shown == [
        {"product": "pk1", "device": "a", "labels": {"site": "berlin"}},
        {"product": "pk2", "device": "a", "labels": {"site": "berlin", "ring": "1"}}]
    admin("device", "rotate", "--where", "site=berlin", devices=devices)
    assert [bool(entry.get("old_secret"))
            for entry in json.loads(devices.read_text())["devices"]] == [False, True, True]
    assert admin("device", "list", "pk1:*", devices=devices) == "pk1:z\npk1:a  site=berlin\n"
    assert "s1" not in admin("device", "show", "z", devices=devices)
    assert "s1" in admin("device", "show", "z", "--secret", devices=devices)
    admin("device", "remove", "--where", "site=*", "--yes", devices=devices)
    assert [entry["device_name"] for entry in json.loads(devices.read_text())["devices"]] == ["z"]


def test_editors_at_once_lose_nothing(devices):
    running = [subprocess.Popen([PROGRAM, "device", "add", f"n{i}", "--product", "pk1", "--devices",
                                 devices], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
               for i in range(12)]
    assert [process.wait(30 * SCALE) for process in running] == [0] * 12
    names = [entry["device_name"] for entry in json.loads(devices.read_text())["devices"]]
    assert names[:3] == ["z", "a", "a"] and sorted(names[3:]) == sorted(f"n{i}" for i in range(12))


def test_a_killed_editor_leaves_the_old_file(devices):
    whole = {"devices": [{"product_key": "pk1", "device_name": f"d{i}", "device_secret": "s" * 43}
                         for i in range(20000)]}
    text = json.dumps(whole, indent=2) + "\n"
    devices.write_text(text)
    new = devices.with_name("devices.json.new")
    for _ in range(10):
        process = subprocess.Popen([PROGRAM, "device", "add", "new", "--product", "pk1",
                                    "--devices", devices], stderr=subprocess.DEVNULL)
        while not new.exists() and process.poll() is None:
            pass
        process.send_signal(signal.SIGKILL)
        if process.wait() == -signal.SIGKILL and new.exists():
            break
        devices.write_text(text)  # it was faster
    assert new.exists() and devices.read_text() == text
    admin("device", "add", "new", "--product", "pk1", devices=devices)
    assert not new.exists() and len(json.loads(devices.read_text())["devices"]) == 20001


def test_who_is_told(made, devices):
    def said(*options):
        return subprocess.run([PROGRAM, "device", "label", "z", "x=1", "--devices", devices,
                               *options], capture_output=True, text=True, check=False,
                              timeout=30 * SCALE)
    assert "has to be told by SIGHUP" in said().stderr
    none = said("--control", made.folder / "control")
    assert none.returncode == 0 and "no back end listens on" in none.stderr
    made.start()
    assert "has read it" in said("--control", made.folder / "control").stderr
    (made.folder / "devices.json").write_text("{}")
    refused = said("--control", made.folder / "control")
    assert refused.returncode == 1 and "the file is changed, but" in refused.stderr
    made.group.wait_for_line("program", "what was in use stays")
