"""What the back end keeps over a restart: used signatures, its copies, and what is no store."""
import asyncio
import hashlib
import hmac
import json
import re
import resource
import socket
import sqlite3
import stat
import subprocess
import time

import pytest
from websockets.legacy import client

from harness.cloud import HANDSHAKE_ID
from harness.processes import ProcessGroup
from harness.sandbox import BIN
from harness.waiting import SCALE, poll, run

REFUSED = {"code": 401, "message": "unknown device or wrong signature"}
ACCEPTED = {"code": 0, "message": "accepted"}


def handshake(name="dev1", secret="secret1"):
    second = int(time.time())
    signed = f"clientIdquorvex_iotdeviceName{name}productKeypk1timestamp{second}"
    payload = json.dumps({
        "uuid": "quorvex_iot", "product_key": "pk1", "device_name": name, "version": "2.1",
        "service_meta": [], "signmethod": "hmacsha256",
        "sign": hmac.new(secret.encode(), signed.encode(), hashlib.sha256).hexdigest()})
    header = {"msg_type": 1, "payload_len": len(payload), "msg_id": HANDSHAKE_ID,
              "timestamp": second, "token": ""}
    return f"{json.dumps(header)}\r\n\r\n{payload}".encode()


class Program:
    """The real program, with one device and a store."""

    def __init__(self, folder):
        self.store, self.group, self.starts = folder / "store.db", ProcessGroup(folder), 0
        self.devices, self.control = folder / "devices", folder / "control"
        self.devices.write_text(json.dumps({"devices": [
            {"product_key": "pk1", "device_name": "dev1", "device_secret": "secret1"}]}))
        self.start()

    def launch(self):
        self.process = self.group.start(
            "program", BIN / "remote_access_backend", "--listen", "127.0.0.1:0", "--plain",
            "--devices", self.devices, "--store", self.store, "--control", self.control)

    def start(self):
        self.launch()
        self.starts += 1
        self.group.wait_for_line("program", "listening on", self.starts)
        self.port = re.findall(r"listening on 127\.0\.0\.1:(\d+)", self.group.log("program"))[-1]

    async def send(self, message, address="127.0.0.1"):
        """The connection, and the answer to this as the first message."""
        link = await client.connect(f"ws://127.0.0.1:{self.port}/", ping_interval=None,
                                        local_addr=(address, 0))
        await link.send(message)
        answer = await asyncio.wait_for(link.recv(), 5 * SCALE)
        return link, json.loads(answer.partition(b"\r\n\r\n")[2])

    def ask(self, what):
        with socket.socket(socket.AF_UNIX) as link:
            link.connect(str(self.control))
            link.sendall(json.dumps({"do": what}).encode() + b"\n")
            return link.recv(10000)

    def back_up(self, *arguments):
        return subprocess.run(
            [BIN / "remote_access_backend", "backup", "--store", self.store, *arguments],
            capture_output=True, text=True, timeout=20 * SCALE, check=False)


@pytest.fixture
def program(tmp_path):
    started = Program(tmp_path)
    yield started
    started.group.stop()


def test_a_signature_counts_once(program):
    async def replay():
        first = handshake()
        begin = time.monotonic()
        true, answer = await program.send(first)
        assert answer == ACCEPTED
        assert (await program.send(first, "127.0.0.2"))[1] == REFUSED
        assert (await program.send(handshake("nobody")))[1] == REFUSED
        assert (await program.send(handshake("dev1", "wrong")))[1] == REFUSED
        await asyncio.sleep(begin + 3 - time.monotonic())
        assert (await program.send(first))[1] == REFUSED
        assert not true.closed  # nothing of the true device was touched
        program.group.wait_for_line("program", "401, signature used before", 2)
        program.process.kill()
        program.process.wait()
        program.start()
        assert (await program.send(first))[1] == REFUSED
        for _ in range(20):  # gone before the store has answered
            link = await client.connect(f"ws://127.0.0.1:{program.port}/")
            await link.send(handshake())
            link.transport.abort()
        while b'"connected":true' in program.ask("devices"):
            await asyncio.sleep(0.01)
        again = handshake()
        for _ in range(2):  # a device that is back within the second that it signed
            link, answer = await program.send(again)
            assert answer == ACCEPTED
            await link.close()
    run(replay())
    reasons = re.findall(r"refused: code 401, ([a-z ]+)", program.group.log("program"))
    assert reasons == ["signature used before", "unknown device", "wrong signature",
                       "signature used before", "signature used before"]


def test_backup_and_restore(program, tmp_path):
    message, target = handshake(), tmp_path / "copy"
    run(program.send(message))
    assert program.back_up(target).returncode == 0
    assert stat.S_IMODE(target.stat().st_mode) == 0o600
    with sqlite3.connect(target) as copy:
        assert copy.execute("SELECT device FROM signature").fetchall() == [("dev1",)]
    again = program.back_up(target)
    assert again.returncode == 1 and "exists already; --force replaces it" in again.stderr
    assert program.back_up(target, "--force").returncode == 0
    program.process.terminate()
    assert program.process.wait(10 * SCALE) == 0
    program.store.write_bytes(b"no store" * 1000)
    refused = program.back_up(tmp_path / "other")
    assert refused.returncode == 1 and not (tmp_path / "other").exists()
    program.launch()
    assert program.process.wait(10 * SCALE) == 1
    assert "it is damaged (file is not a database); restore" in program.group.log("program")
    target.rename(program.store)
    program.start()
    time.sleep(2)
    assert run(program.send(message))[1] == REFUSED


def test_a_full_disk_refuses_devices_and_is_over_by_itself(program):
    def limit(size):
        subprocess.run(["prlimit", f"--pid={program.process.pid}", f"--fsize={size}:"], check=True)

    limit(0)  # of its log, too: what it says meanwhile is lost
    assert run(program.send(handshake()))[1]["code"] == 503
    time.sleep(1)
    assert run(program.send(handshake()))[1]["code"] == 503
    limit("unlimited")
    time.sleep(1)
    assert run(program.send(handshake()))[1] == ACCEPTED
    assert "can be written again" in program.group.log("program")


def test_one_that_comes_and_goes_is_told_of_in_few_lines(program):
    """And then the back end ends, as soon as the device that is left has been told."""
    async def come_and_go():
        for _ in range(40):
            link, answer = await program.send(handshake())
            assert answer == ACCEPTED
            await link.close()
        for _ in range(100):
            assert (await program.send(handshake("dev1", "wrong")))[1] == REFUSED
        link, answer = await program.send(handshake())
        assert answer == ACCEPTED
        begin = time.monotonic()
        program.process.terminate()
        assert await asyncio.to_thread(program.process.wait, 10 * SCALE) == 0
        assert time.monotonic() - begin < 0.7 * SCALE
        await link.close()
    run(come_and_go())
    text = program.group.log("program")
    events = [json.loads(line) for line in text.splitlines() if line.startswith("{")]
    for names, lines in ((("device_connected", "device_disconnected"), 82),
                         (("handshake_refused",), 100)):
        told = sum(event["event"] in names for event in events)
        left_out = sum(event["count"] for event in events
                       if event.get("of") in names and event["device"] == "dev1")
        assert 20 <= told <= 25 and told + left_out == lines
    assert len(re.findall(" device dev1.* (?:dis)?connected", text)) <= 25


def test_one_account_does_not_hold_all_of_the_control_socket(program):
    links, most = [], resource.getrlimit(resource.RLIMIT_NOFILE)[1]
    resource.setrlimit(resource.RLIMIT_NOFILE, (most, most))
    try:
        for _ in range(1025):
            links.append(socket.socket(socket.AF_UNIX))
            links[-1].connect(str(program.control))
        links[-1].settimeout(3 * SCALE)
        assert b"too many connections" in links[-1].recv(1000)
        links.pop(0).close()
        links.pop().close()
        poll(lambda: b'"metrics"' in program.ask("status"), 5, "an answer")
    finally:
        for link in links:
            link.close()
