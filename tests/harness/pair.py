"""A gateway and its back end, each in a network namespace of its own, with a link between them.

On the gateway's side run the daemon in its sandbox, the private bus, the configuration manager, the
watchdog and the local services; on the other side the reference back end, over TLS, and its
clients. This process is on the gateway's side and makes the sockets of both.
"""
import ctypes
import json
import multiprocessing
import os
import pathlib
import re
import shutil
import socket
import subprocess
import tempfile
import time

from . import modules, network
from .sandbox import (BIN, CA_FILE, CONFIG, CONFIG_DIR, NAME, REPOSITORY, Gateway,
                      start_gateways)
from .tls import HOST, Certificates
from .waiting import poll

GATEWAY_ADDRESS, CLOUD_ADDRESS = "10.88.0.1", "10.88.0.2"
OBJECT = "/" + NAME.replace(".", "/")
THREADS = ("mainThread", "remoteAccessProxyThread")
FEED_LIMIT_S = 20
_CLONE_NEWNET = 0x40000000
_libc = ctypes.CDLL(None, use_errno=True)
fork = multiprocessing.get_context("fork")


def _call(function, *arguments):
    if function(*arguments) != 0:
        raise OSError(ctypes.get_errno(), os.strerror(ctypes.get_errno()))


def run(*command):
    subprocess.run([str(part) for part in command], check=True, stdout=subprocess.DEVNULL)


class Network:
    """The two namespaces; `cloud` is the path of the other one."""

    def __init__(self):
        network.enter_private_network()
        self._here = os.open("/proc/thread-self/ns/net", os.O_RDONLY)
        _call(_libc.unshare, _CLONE_NEWNET)
        self._there = os.open("/proc/thread-self/ns/net", os.O_RDONLY)
        _call(_libc.setns, self._here, _CLONE_NEWNET)
        self.cloud = f"/proc/{os.getpid()}/fd/{self._there}"
        run("ip", "link", "add", "uplink", "type", "veth", "peer", "name", "downlink", "netns",
            self.cloud)
        for enter, device, address in (((), "uplink", GATEWAY_ADDRESS),
                                       (self.enter(), "downlink", CLOUD_ADDRESS)):
            run(*enter, "ip", "link", "set", "lo", "up")
            run(*enter, "ip", "address", "add", f"{address}/24", "dev", device)
            run(*enter, "ip", "link", "set", device, "up")

    def enter(self):
        return "nsenter", f"--net={self.cloud}", "--"

    def cloud_socket(self):
        """A socket stays in the namespace that it was made in."""
        _call(_libc.setns, self._there, _CLONE_NEWNET)
        try:
            return socket.socket()
        finally:
            _call(_libc.setns, self._here, _CLONE_NEWNET)

    def shape(self, device, bits_per_s=None):
        """Limits what leaves by `uplink` or `downlink`; None takes the limit away.

        Behind the limit lies a queue of 200 ms, of 24 KB at least.
        """
        enter = self.enter() if device == "downlink" else ()
        if bits_per_s is None:
            subprocess.run([*enter, "tc", "qdisc", "del", "dev", device, "root"], check=False,
                           stderr=subprocess.DEVNULL)
            return
        burst, queue = max(3200, int(bits_per_s / 800)), max(24000, int(bits_per_s / 40))
        run(*enter, "tc", "qdisc", "replace", "dev", device, "root", "tbf", "rate",
            f"{int(bits_per_s)}bit", "burst", burst, "limit", burst + queue)


def listen(receive_buffer=None):
    """A local service's socket on the gateway."""
    listener = socket.socket()
    if receive_buffer:
        listener.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, receive_buffer)
    listener.bind(("127.0.0.1", network.free_port()))
    listener.listen(64)
    return listener


class Workspace:
    """The directory of all gateways of a run, and the certificates."""

    def __enter__(self):
        self.directory = pathlib.Path(tempfile.mkdtemp(prefix="ra-soak-", dir="/tmp"))
        (self.directory / "tls").mkdir()
        self.certificates = Certificates(self.directory / "tls")
        return self

    def __exit__(self, *_):
        if not os.environ.get("RA_KEEP"):
            shutil.rmtree(self.directory)


class World:
    """One gateway whose channel is accepted. `services` are (address, port) by name; `ports` lead
    to them on the back end's side."""

    def __init__(self, workspace, net, name, services, config=(), files=(), level=1, back_end=True,
                 linger=1):
        self.net, self.home = net, workspace.directory / name
        self.listen = network.free_port()
        self.ports = {service: network.free_port() for service in services}
        offered = [{"type": "TCP", "name": service, "ip": ip, "port": port}
                   for service, (ip, port) in services.items()]
        self.gateway = Gateway(
            workspace.directory, name, cloud=self.listen, watched=True,
            config={"gw_remoteaccess_cloud_host": HOST, "gw_remoteaccess_tls_type": 1,
                    "gw_remoteaccess_trans_timeout": 2000, **dict(config)},
            files={CA_FILE: workspace.certificates.authority,
                   "etc/hosts": f"127.0.0.1 localhost\n{CLOUD_ADDRESS} {HOST}\n",
                   f"{CONFIG_DIR}/logger.conf": f"level={level}\n",
                   f"{CONFIG_DIR}/remote_terminal.json": json.dumps(offered), **dict(files)})
        self._bus = None
        # The watchdog listens before the first feed.
        self.gateway.start_bus()
        self.gateway.bus = False
        self.gateway.wait_for_name("org.freedesktop.DBus")
        modules.start_watchdog(self.gateway)
        self.gateway.wait_for_name("iot.gateway.watchdog")
        self.back_end = self._start_back_end(workspace, linger) if back_end else None
        start_gateways([self.gateway])
        self.gateway.wait_for_name(NAME)
        if back_end:
            self.wait_for_answer(1)

    def _start_back_end(self, workspace, linger):
        device = {key: CONFIG["gw_system_" + key.replace("_", "")]
                  for key in ("product_key", "device_name", "device_secret")}
        self.gateway.put("devices.json", json.dumps({"devices": [device]}))
        (self.home / "devices.json").chmod(0o600)
        certificate, key = workspace.certificates.paths()
        forwards = [part for name, port in self.ports.items()
                    for part in ("--forward", f"{port}=dev1/{name}")]
        back_end = self.gateway.spawn_beside(
            "backend", *self.net.enter(), BIN / "remote_access_backend", "--listen",
            f"{CLOUD_ADDRESS}:{self.listen}", "--cert", certificate, "--key", key, "--devices",
            self.home / "devices.json", "--linger", linger, *forwards)
        poll(lambda: "listening on" in self.gateway.log_beside("backend"), 10, "the back end")
        return back_end

    def wait_for_answer(self, state):
        poll(lambda: f'"state": {state}' in str(self.ask("queryRemoteChannelState")), 15,
             lambda: f"channel state {state}: {self.gateway.log.tail(8)}")

    def client(self, service, receive_buffer=None):
        """A connection of an operator to the port that leads to the service."""
        connection = self.net.cloud_socket()
        if receive_buffer:
            connection.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, receive_buffer)
        connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        connection.connect(("127.0.0.1", self.ports[service]))
        return connection

    def bus(self):
        import dbus.bus
        connection = dbus.bus.BusConnection(self.gateway.address)
        connection.set_exit_on_disconnect(False)
        return connection

    def ask(self, method, bus=None):
        self._bus = self._bus or self.bus()
        return (bus or self._bus).call_blocking(NAME, OBJECT, NAME, method, "", (), timeout=60)

    def switch(self, on, line):
        """Seconds from the command until the line that tells of its effect."""
        mark, start = self.gateway.log.mark(), time.time()
        self.ask("OpenRemoteAccess" if on else "CloseRemoteAccess")
        return self.gateway.log.wait(*line, mark, seconds=120).time - start

    def feed_gaps(self):
        """The longest time between two feeds of each thread, in seconds."""
        feeds = {name: [] for name in THREADS}
        at = 0.0
        for line in self.gateway.log_beside("feeds").splitlines():
            if found := re.match(r"signal time=([0-9.]+)", line):
                at = float(found[1])
            elif (name := line.strip().removeprefix('string "').removesuffix('"')) in feeds:
                feeds[name].append(at)
        gaps = {name: max((b - a for a, b in zip(times, times[1:])), default=0.0)
                for name, times in feeds.items()}
        for name, times in feeds.items():
            gaps[name] = max(gaps[name], time.time() - times[-1] if times else FEED_LIMIT_S)
        return gaps

    def close(self):
        """Ends all; what went wrong meanwhile."""
        faults = [line for line in self.gateway.log_beside("watchdog").splitlines()
                  if "has not been fed" in line or " W " in line]
        faults += [f"{name} was not fed for {gap:.1f} s" for name, gap in self.feed_gaps().items()
                   if gap >= FEED_LIMIT_S]
        log = self.gateway.log_beside("watchdog")
        faults += [f"{name} was never watched" for name in THREADS if f"{name} of" not in log]
        if self.back_end and self.back_end.poll() is not None:
            faults.append("the back end ended")
        return faults + self.gateway.stop()


def figures(pid):
    """RSS in kB, descriptors and threads of a process."""
    with open(f"/proc/{pid}/status", encoding="ascii") as file:
        status = file.read()
    return (int(re.search(r"VmRSS:\s+(\d+)", status)[1]), len(os.listdir(f"/proc/{pid}/fd")),
            int(re.search(r"Threads:\s+(\d+)", status)[1]))


def write_section(name, text):
    """Replaces what stands in docs/limits.md between this section's markers, or adds it."""
    path = REPOSITORY / "docs/limits.md"
    head = ("# Limits\n\nWhat the daemon bears, for how long it stalls, and where it loses bytes: "
            "measured.\n")
    old = path.read_text() if path.exists() else head
    first, last = f"<!-- {name}: made by scripts/stalls -->\n", f"<!-- end of {name} -->\n"
    block = first + text + last
    if first in old:
        start, end = old.index(first), old.index(last) + len(last)
        path.write_text(old[:start] + block + old[end:])
    else:
        path.write_text(old + "\n" + block)
