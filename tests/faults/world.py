"""One gateway, one back end and the line between them, with a fault for every part of it.

Two network namespaces joined by a veth pair: "home", where the daemon, its bus and its local
service live, and "cloud", where the real back end, the name server and the operators' clients do.
A relay stands in front of the back end, as a load balancer would. It passes TLS through untouched,
and can hold an opening at a chosen record, end connections by FIN or RST, and refuse new ones.
Packets are dropped on the side that receives them, so that the sender's own kernel knows nothing.
"""
import asyncio
import ctypes
import json
import os
import pathlib
import signal
import socket
import struct
import subprocess
import threading
import time
from dataclasses import dataclass

from harness import network, waiting
from harness.sandbox import BIN, CA_FILE, CONFIG, CONFIG_DIR, NAME, SECRET, Gateway
from harness.tls import HOST

GATEWAY, NEW_GATEWAY = "10.78.0.2", "10.78.0.3"
CLOUD, NEW_CLOUD = "10.78.0.10", "10.78.0.20"
CHANNEL_PORT, FORWARD_PORT, BACK_END, SERVICE_PORT = 443, 2022, ("127.0.0.1", 7443), 9000
RESTART_AFTER_S = 5  # what docs/operating.md tells a supervisor to wait
FAKETIME = next(iter(sorted(pathlib.Path("/usr/lib").glob("*/faketime/libfaketime.so.1"))), None)
_LIBC = ctypes.CDLL(None, use_errno=True)
_CLONE_NEWNET = 0x40000000
_BUFFER = 1 << 16
_FILTER = "table inet line { chain arriving { type filter hook prerouting priority raw; }; }"


def _move_to(file):
    if _LIBC.setns(file.fileno(), _CLONE_NEWNET) != 0:
        raise OSError(ctypes.get_errno(), "setns")


def command(*words, text=None):
    done = subprocess.run([*map(str, words)], input=text, capture_output=True, text=True,
                          check=False)
    if done.returncode != 0:
        raise RuntimeError(f"{' '.join(map(str, words))}: {done.stderr}")


class Namespace:
    """What this thread makes inside a `with` of it, sockets and processes, belongs to it."""

    def __init__(self, fresh):
        self._home = open("/proc/thread-self/ns/net", "rb")
        if fresh and _LIBC.unshare(_CLONE_NEWNET) != 0:
            raise OSError(ctypes.get_errno(), "unshare")
        self.file = open("/proc/thread-self/ns/net", "rb")
        with self:
            command("ip", "link", "set", "lo", "up")
            command("nft", "-f", "-", text=_FILTER)

    def __enter__(self):
        _move_to(self.file)

    def __exit__(self, *_):
        _move_to(self._home)

    def drop_arriving(self, what="ip daddr != 127.0.0.1"):
        with self:
            command("nft", "add", "rule", "inet", "line", "arriving", *what.split(), "drop")

    def drop_nothing(self):
        with self:
            command("nft", "flush", "chain", "inet", "line", "arriving")


def end_by_reset(connection):
    connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    connection.close()


def small_listener(address, port):
    """What is taken in here while nobody reads would count as delivered on the other side."""
    listener = socket.socket()
    listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    listener.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, _BUFFER)
    listener.bind((address, port))
    listener.listen(64)
    return listener


class Relay:
    """`hold_at` is the number of the TLS record of the gateway that goes no further until it is
    None again; `holding` says that one has come."""

    def __init__(self):
        self.hold_at, self.holding = None, False
        self._pairs, self._servers = set(), []

    def listen(self, *addresses):
        async def start():
            for address in addresses:
                self._servers.append(await asyncio.start_server(
                    self._serve, sock=small_listener(address, CHANNEL_PORT), limit=_BUFFER))
        waiting.run(start())

    def refuse(self):
        """No connection is taken from now on."""
        async def stop():
            while self._servers:
                self._servers.pop().close()
        waiting.run(stop())

    def end_all(self, by_reset):
        async def end():
            for gateway, back_end in list(self._pairs):
                if by_reset:
                    for side in (gateway, back_end):
                        side.get_extra_info("socket").setsockopt(
                            socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
                        side.transport.abort()
                else:
                    gateway.write_eof()
        waiting.run(end())

    async def _serve(self, reader, gateway):
        try:
            answers, back_end = await asyncio.open_connection(*BACK_END, limit=_BUFFER)
            back_end.get_extra_info("socket").setsockopt(socket.SOL_SOCKET, socket.SO_SNDBUF,
                                                         _BUFFER)
        except OSError:
            gateway.transport.abort()
            return
        pair = (gateway, back_end)
        self._pairs.add(pair)
        ways = [asyncio.ensure_future(way) for way in
                (self._carry_records(reader, back_end), self._carry(answers, gateway))]
        await asyncio.wait(ways, return_when=asyncio.FIRST_COMPLETED)
        self._pairs.discard(pair)
        for way in ways:
            way.cancel()
        for side in pair:
            side.close()

    async def _carry_records(self, reader, writer):
        count = 0
        try:
            while True:
                head = await reader.readexactly(5)
                record = head + await reader.readexactly(int.from_bytes(head[3:], "big"))
                while self.hold_at == count:
                    self.holding = True
                    await asyncio.sleep(0.01)
                count += 1
                writer.write(record)
                await writer.drain()
        except (OSError, asyncio.IncompleteReadError):
            pass

    @staticmethod
    async def _carry(reader, writer):
        try:
            while data := await reader.read(1 << 16):
                writer.write(data)
                await writer.drain()
        except (OSError, RuntimeError):  # the latter: written to after its end
            pass


@dataclass
class Event:
    """A line of the daemon's log, or (level "-") its end. `at` is when it was seen, on this
    process's monotonic clock: the daemon's own clock may be what is at fault."""
    at: float
    level: str
    text: str


class Edge(Gateway):
    """A gateway with a supervisor that starts the daemon again whenever it has ended."""

    def __init__(self, directory, authority, faked_clock, **config):
        super().__init__(directory, "gw", cloud=CHANNEL_PORT, ends=[1], config={
            "gw_remoteaccess_cloud_host": HOST, "gw_remoteaccess_tls_type": 1,
            "gw_remoteaccess_trans_timeout": 2000, **config}, files={
                CA_FILE: authority, "etc/hosts": "127.0.0.1 localhost\n",
                "etc/resolv.conf": f"nameserver {CLOUD}\n", "tmp/clock": "+0",
                f"{CONFIG_DIR}/logger.conf": "level=1\n",
                f"{CONFIG_DIR}/remote_terminal.json": json.dumps(
                    [{"type": "TCP", "name": "service", "ip": "127.0.0.1",
                      "port": SERVICE_PORT}])})
        self._faked_clock, self.events, self.runs = faked_clock, [], []
        self.lag = 0.0  # for how long at most the machine left this process waiting
        self._watch = threading.Thread(target=self._follow, daemon=True)
        self._stopping, self._parked = threading.Event(), threading.Event()

    def sandbox(self):
        clock = {"LD_PRELOAD": FAKETIME, "FAKETIME_TIMESTAMP_FILE": "/tmp/clock",
                 "FAKETIME_NO_CACHE": "1", "FAKETIME_DONT_FAKE_MONOTONIC": "1",
                 "FAKETIME_DONT_RESET": "1"} if self._faked_clock else {}
        return super().sandbox() + [word for name, value in clock.items()
                                    for word in ("--setenv", name, value)]

    def step_clock(self, seconds):
        fresh = self.root / "tmp/clock.new"
        fresh.write_text(f"{seconds:+d}")
        fresh.rename(self.root / "tmp/clock")

    def start_daemon(self):
        self.daemon = self.spawn(f"-{len(self.runs)}")
        self.runs.append(self.daemon)
        self.daemon.find_pid()
        if not self._watch.is_alive():
            self._watch.start()

    def _follow(self):
        seen, restart_at, last = 0, None, time.monotonic()
        while not self._stopping.is_set():
            lines = self.daemon.log.lines
            ended = self.daemon.status is not None and len(lines) == seen
            now = time.monotonic()
            self.lag, last = max(self.lag, now - last), now
            self.events += [Event(now, line.level, line.text) for line in lines[seen:]]
            seen = len(lines)
            if ended and restart_at is None:
                self.events.append(Event(now, "-", f"status {self.daemon.status}"))
                restart_at = now + RESTART_AFTER_S
            if ended and now >= restart_at:
                seen, restart_at = 0, None
                self.start_daemon()
                last = time.monotonic()
            time.sleep(0.01)
        self._parked.set()
        threading.Event().wait()  # the daemon that it started would end with it

    def stop(self):
        """End everything; what went wrong while it ran, also in runs that have ended."""
        self._stopping.set()
        if self.runs:
            self._parked.wait()
        return super().stop() + [f"not a log line: {text}" for run in self.runs[:-1]
                                 for text in run.log.strays]

    def descriptors(self):
        return len(os.listdir(f"/proc/{self.daemon.pid}/fd"))

    def sessions(self):
        """The open sessions by the bus method; None when the bus does not answer."""
        status, text = self.call(NAME, f"{NAME}.queryAllSessionInfo", timeout_ms=500)
        return text.count("sessionId") if status == 0 else None


class World:
    """Everything of one cell but its daemon, up and running when made."""

    def __init__(self, directory, tls, faked_clock=False, **config):
        network.enter_private_network()
        self.directory, self.tls = directory, tls
        self.home, self.cloud = Namespace(fresh=False), Namespace(fresh=True)
        self._join()
        with self.cloud:
            waiting.run(asyncio.sleep(0))  # the servers' thread stays in the cloud
        self.relay = Relay()
        self.relay.listen(CLOUD, NEW_CLOUD)
        self.edge = Edge(directory, (tls / "ca.pem").read_text(), faked_clock, **config)
        (directory / "devices.json").write_text(json.dumps({"devices": [
            {"product_key": CONFIG["gw_system_productkey"],
             "device_name": CONFIG["gw_system_devicename"], "device_secret": SECRET}]}))
        self._dns = None
        self.start_back_end()
        self.announce(CLOUD)
        self._dns = self._in_cloud(
            "dns", "dnsmasq", "--no-daemon", "--conf-file=/dev/null", "--no-resolv", "--no-hosts",
            f"--addn-hosts={directory}/hosts", "--local=/test/", f"--listen-address={CLOUD}",
            "--bind-interfaces")
        with self.home:
            self.service = small_listener("127.0.0.1", SERVICE_PORT)
            self.edge.start_bus()
            self.edge.wait_for_name("org.freedesktop.DBus")
            self.start_watchdog()

    def _join(self):
        here = f"/proc/{os.getpid()}/fd/{self.cloud.file.fileno()}"
        command("ip", "link", "add", "line", "type", "veth", "peer", "name", "line", "netns", here)
        with self.cloud:
            for address in (CLOUD, NEW_CLOUD):
                command("ip", "addr", "add", f"{address}/24", "dev", "line")
            command("ip", "link", "set", "line", "up")
        command("ip", "addr", "add", f"{GATEWAY}/24", "dev", "line")
        self.link(True)

    def link(self, up):
        command("ip", "link", "set", "line", "up" if up else "down")
        if up:
            command("ip", "route", "replace", "default", "via", CLOUD)

    def change_address(self):
        command("ip", "addr", "del", f"{GATEWAY}/24", "dev", "line")
        command("ip", "addr", "add", f"{NEW_GATEWAY}/24", "dev", "line")
        command("ip", "route", "replace", "default", "via", CLOUD)

    def _in_cloud(self, name, *words):
        with self.cloud:
            return self.edge.spawn_beside(name, *words)

    def start_back_end(self):
        address = "{}:{}".format(*BACK_END)
        self.back_end = self._in_cloud(
            "back_end", BIN / "remote_access_backend", "--listen", address, "--cert",
            self.tls / "good.pem", "--key", self.tls / "good.key", "--devices",
            self.directory / "devices.json", "--forward",
            f"{FORWARD_PORT}={CONFIG['gw_system_devicename']}/service")
        with self.cloud:
            waiting.poll(lambda: socket.socket().connect_ex(BACK_END) == 0, 10, "the back end")

    def kill_back_end(self):
        self.relay.refuse()
        self.back_end.kill()
        self.back_end.wait()

    def pause_back_end(self, paused):
        self.back_end.send_signal(signal.SIGSTOP if paused else signal.SIGCONT)

    def announce(self, address):
        (self.directory / "hosts").write_text(f"{address} {HOST}\n")
        if self._dns:
            self._dns.send_signal(signal.SIGHUP)

    def start_watchdog(self):
        self.edge.spawn_beside("watchdog", BIN / "gateway_watchdog", "--bus", self.edge.address)

    def client(self):
        with self.cloud:
            connection = socket.socket()
        connection.settimeout(1)
        connection.connect(("127.0.0.1", FORWARD_PORT))
        return connection
