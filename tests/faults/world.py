"""One gateway, one back end and the line between them, with a fault for every part of it.

Two network namespaces joined by a veth pair: "home", where the daemon, its bus and its local
service live, and "cloud", where the real back end with a relay in front of it, the name server and
the operators' clients do. Packets are dropped on the side that receives them, so that the sender's
own kernel knows nothing.
"""
import asyncio
import contextlib
import signal
import socket

from harness import network, waiting
from harness.backend import start_back_end
from harness.local import listen
from harness.modules import start_watchdog
from harness.network import Namespace, command
from harness.tls import HOST, Certificates

from edge import Edge
from relay import BUFFER, Relay

GATEWAY, NEW_GATEWAY = "10.78.0.2", "10.78.0.3"
CLOUD, NEW_CLOUD = "10.78.0.10", "10.78.0.20"
CHANNEL_PORT, FORWARD_PORT, BACK_END, SERVICE_PORT = 443, 2022, ("127.0.0.1", 7443), 9000
_FILTER = "table inet line { chain arriving { type filter hook prerouting priority raw; }; }"


class World:
    """Everything of one cell but its daemon, up and running when made."""

    def __init__(self, directory, tls, faked_clock=False, **config):
        network.enter_private_network()
        self.directory, self.tls = directory, Certificates(tls)
        self.cloud = Namespace()
        self.cloud.join(("line", GATEWAY), ("line", CLOUD, NEW_CLOUD))
        self.link(True)
        self.lines = {"home": contextlib.nullcontext(), "cloud": self.cloud}
        for side in self.lines.values():
            with side:
                command("nft", "-f", "-", text=_FILTER)
        with self.cloud:
            waiting.run(asyncio.sleep(0))  # the servers' thread stays in the cloud
        self.relay = Relay(CHANNEL_PORT, BACK_END)
        self.relay.listen(CLOUD, NEW_CLOUD)
        self.edge = Edge(
            directory, faked_clock, cloud=CHANNEL_PORT, level=1, authority=self.tls.authority,
            config={"gw_remoteaccess_trans_timeout": 2000, **config},
            files={"etc/hosts": "127.0.0.1 localhost\n",
                   "etc/resolv.conf": f"nameserver {CLOUD}\n"},
            services=[{"type": "TCP", "name": "service", "ip": "127.0.0.1", "port": SERVICE_PORT}])
        self._dns = None
        self.start_back_end()
        self.announce(CLOUD)
        with self.cloud:
            self._dns = self.edge.spawn_beside(
                "dns", "dnsmasq", "--no-daemon", "--conf-file=/dev/null", "--no-resolv",
                "--no-hosts", f"--addn-hosts={directory}/hosts", "--local=/test/",
                f"--listen-address={CLOUD}", "--bind-interfaces")
        self.service = listen(BUFFER, port=SERVICE_PORT)
        self.edge.start_bus()
        self.edge.wait_for_name("org.freedesktop.DBus")
        start_watchdog(self.edge)

    def drop_arriving(self, side, what="ip daddr != 127.0.0.1"):
        with self.lines[side]:
            command("nft", "add", "rule", "inet", "line", "arriving", *what.split(), "drop")

    def drop_nothing(self):
        for side in self.lines.values():
            with side:
                command("nft", "flush", "chain", "inet", "line", "arriving")

    def link(self, up):
        command("ip", "link", "set", "line", "up" if up else "down")
        if up:
            command("ip", "route", "replace", "default", "via", CLOUD)

    def change_address(self):
        command("ip", "addr", "del", f"{GATEWAY}/24", "dev", "line")
        command("ip", "addr", "add", f"{NEW_GATEWAY}/24", "dev", "line")
        command("ip", "route", "replace", "default", "via", CLOUD)

    def start_back_end(self):
        with self.cloud:
            self.back_end = start_back_end(self.edge, BACK_END, self.tls.paths(),
                                           ports={"service": FORWARD_PORT})

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

    def client(self):
        with self.cloud:
            connection = socket.socket()
        connection.settimeout(1)
        connection.connect(("127.0.0.1", FORWARD_PORT))
        return connection
