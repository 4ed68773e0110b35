"""A gateway and its back end, each in a network namespace of its own, with a link between them.

On the gateway's side run the daemon in its sandbox, the private bus, the configuration manager, the
watchdog and the local services; on the other side the reference back end, over TLS, and its
clients. This process is on the gateway's side and makes the sockets of both.
"""
import re
import socket
import time

import dbus.bus

from . import modules, network
from .backend import start_back_end
from .sandbox import NAME, Gateway, start_gateways
from .tls import HOST
from .waiting import poll

GATEWAY_ADDRESS, CLOUD_ADDRESS = "10.88.0.1", "10.88.0.2"
OBJECT = "/" + NAME.replace(".", "/")
THREADS = ("mainThread", "remoteAccessProxyThread")
FEED_LIMIT_S = 20


def enter_linked_networks():
    """Moves this process to the gateway's side; returns the other one."""
    network.enter_private_network()
    cloud = network.Namespace()
    cloud.join(("uplink", GATEWAY_ADDRESS), ("downlink", CLOUD_ADDRESS))
    return cloud


class Pair:
    """One gateway whose channel is accepted. `services` are (address, port) by name; `ports` are
    theirs on the back end's side."""

    def __init__(self, workspace, cloud, name, services, config=(), files=(), level=1,
                 back_end=True):
        self.cloud, self.listen = cloud, network.free_port()
        self.ports = {service: network.free_port() for service in services}
        self.gateway = Gateway(
            workspace.directory, name, cloud=self.listen, watched=True, level=level,
            authority=workspace.certificates.authority,
            services=[{"type": "TCP", "name": service, "ip": ip, "port": port}
                      for service, (ip, port) in services.items()],
            config={"gw_remoteaccess_trans_timeout": 2000, **dict(config)},
            files={"etc/hosts": f"127.0.0.1 localhost\n{CLOUD_ADDRESS} {HOST}\n", **dict(files)})
        # The watchdog listens before the first feed.
        self.gateway.start_bus()
        self.gateway.bus = False
        self.gateway.wait_for_name("org.freedesktop.DBus")
        modules.start_watchdog(self.gateway)
        self.gateway.wait_for_name("iot.gateway.watchdog")
        self._bus, self.back_end = self.bus(), None
        if back_end:
            with cloud:
                self.back_end = start_back_end(
                    self.gateway, (CLOUD_ADDRESS, self.listen), workspace.certificates.paths(),
                    "--linger", 1, ports=self.ports)
        start_gateways([self.gateway])
        self.gateway.wait_for_name(NAME)
        if back_end:
            self.wait_for_answer(1)

    def wait_for_answer(self, state):
        poll(lambda: f'"state": {state}' in str(self.ask("queryRemoteChannelState")), 15,
             lambda: f"channel state {state}: {self.gateway.log.tail(8)}")

    def client(self, service, receive_buffer=None):
        """A connection of an operator to the port of the service."""
        with self.cloud:
            connection = socket.socket()
        if receive_buffer:
            connection.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, receive_buffer)
        connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        connection.connect(("127.0.0.1", self.ports[service]))
        return connection

    def bus(self):
        connection = dbus.bus.BusConnection(self.gateway.address)
        connection.set_exit_on_disconnect(False)
        return connection

    def ask(self, method, bus=None):
        return (bus or self._bus).call_blocking(NAME, OBJECT, NAME, method, "", (), timeout=60)

    def switch(self, on, line):
        """Seconds from the command until the line that shows its effect."""
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
        return {name: max((b - a for a, b in zip(times, [*times[1:], time.time()])),
                          default=FEED_LIMIT_S) for name, times in feeds.items()}

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
