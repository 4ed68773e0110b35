"""An honest channel's two ends: the real back end, and a device with the daemon's time-outs."""
import hashlib
import hmac
import json
import os
import socket
import ssl
import subprocess
import time

from harness import network
from harness.sandbox import BIN
from harness.tls import HOST
from harness.waiting import poll

HONEST, ELSEWHERE = "127.0.0.2", "127.0.1.1"
TLS_TIME, ANSWER_TIME, PAUSE = 10, 3, 1  # the daemon's, in seconds
FLEET = 1000
UPGRADE = (f"GET / HTTP/1.1\r\nHost: {HOST}\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
           "Sec-WebSocket-Version: 13\r\nSec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n\r\n")
NAMES = [f"fleet-{n}" for n in range(FLEET)] + [f"true-{n}" for n in range(100)]


class BackEnd:
    """One run after another of the back end, on a port of its own. Its log and audit are files,
    unless it gets other `outputs`."""
    has_store = "--store" in subprocess.run(
        [BIN / "remote_access_backend", "--help"], capture_output=True, text=True,
        check=True).stdout

    def __init__(self, workspace, environment=(), **outputs):
        self.directory = workspace.directory / f"run-{network.free_port()}"
        self.directory.mkdir()
        self.environment, self.outputs = dict(environment), outputs
        self.port, self.workspace = network.free_port(), workspace
        self.context = ssl.create_default_context(cadata=workspace.certificates.authority)
        (self.directory / "devices.json").touch(0o600)
        (self.directory / "devices.json").write_text(json.dumps({"devices": [
            {"product_key": "pk1", "device_name": name, "device_secret": f"secret-of-{name}"}
            for name in NAMES]}))
        self.start()

    def start(self):
        certificate, key = self.workspace.certificates.paths()
        store = ("--store", self.directory / "store") if self.has_store else ()
        with open(self.directory / "log", "ab") as log, open(self.directory / "audit", "ab") as out:
            self.process = subprocess.Popen(
                ["setpriv", "--pdeathsig", "KILL", BIN / "remote_access_backend", "--listen",
                 f"127.0.0.1:{self.port}", "--cert", certificate, "--key", key, "--devices",
                 self.directory / "devices.json", *store], stdin=subprocess.DEVNULL,
                env={**os.environ, **self.environment},
                **{"stdout": out, "stderr": log, **self.outputs})
        poll(self._listens, 10, "the back end listens")

    def _listens(self):
        assert self.process.poll() is None, f"the back end has ended, see {self.directory}/log"
        with socket.socket() as probe:
            return probe.connect_ex(("127.0.0.1", self.port)) == 0

    def stop(self, patience=10):
        """Seconds from SIGTERM to its end; more than `patience` if it had to be killed."""
        start = time.monotonic()
        self.process.terminate()
        try:
            self.process.wait(patience)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
        return time.monotonic() - start

    def cpu(self):
        with open(f"/proc/{self.process.pid}/stat", encoding="ascii") as stat:
            fields = stat.read().rpartition(")")[2].split()
        return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")

    def peak_mb(self):
        with open(f"/proc/{self.process.pid}/status", encoding="ascii") as status:
            return next(int(line.split()[1]) for line in status if line.startswith("VmHWM")) / 1024

    def written(self):
        return sum((self.directory / name).stat().st_size for name in ("log", "audit"))


# ---- the honest device

def handshake(name, at=None, services=()):
    """The message, signed at this second; its header's timestamp can be changed afterwards."""
    at = int(time.time()) if at is None else at
    text = f"clientIdquorvex_iotdeviceName{name}productKeypk1timestamp{at}"
    sign = hmac.new(f"secret-of-{name}".encode(), text.encode(), hashlib.sha256).hexdigest()
    payload = json.dumps({
        "uuid": "quorvex_iot", "product_key": "pk1", "device_name": name, "version": "2.1",
        "IP": "", "MAC": "", "token": "", "service_meta": list(services),
        "signmethod": "hmacsha256", "sign": sign})
    return (f'{{"msg_type": 1,"payload_len": {len(payload)},"msg_id": "msg_id_for_handshake",'
            f'"timestamp":{at},"token":""}}\r\n\r\n{payload}').encode()


def read_until(channel, wanted):
    channel.settimeout(ANSWER_TIME)
    got = b""
    while wanted not in got:
        if not (piece := channel.recv(4096)):
            raise ConnectionError("ended by the back end")
        got += piece
    return got


def open_channel(back_end, address):
    plain = socket.socket()
    plain.settimeout(TLS_TIME)
    plain.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
    try:
        plain.bind((address, 0))
        plain.connect(("127.0.0.1", back_end.port))
        channel = back_end.context.wrap_socket(plain, server_hostname=HOST)
        channel.sendall(UPGRADE.encode())
        read_until(channel, b"\r\n\r\n")
        return channel
    except OSError:
        plain.close()
        raise


def shake_hands(channel, message):
    """Sends the handshake in one frame with a mask of zeros; the code of the answer."""
    channel.sendall(b"\x82\xfe" + len(message).to_bytes(2, "big") + bytes(4) + message)
    return int(read_until(channel, b"}\r\n\r\n{").rpartition(b'"code":')[2].split(b",")[0])


def come_in(back_end, name, address, until):
    """Tries until it is in, as the daemon does: (seconds, failed attempts, whether it is)."""
    start, failures = time.monotonic(), 0
    while time.monotonic() < until:
        try:
            with open_channel(back_end, address) as channel:
                if shake_hands(channel, handshake(name)) == 0:
                    return time.monotonic() - start, failures, True
        except OSError:
            pass
        failures += 1
        time.sleep(min(PAUSE, max(0, until - time.monotonic())))
    return time.monotonic() - start, failures, False
