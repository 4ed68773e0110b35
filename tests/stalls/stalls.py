"""Measures what stalls the daemon and by how much that delays everything else, and where it loses
bytes. Writes its tables to docs/limits.md. See scripts/stalls."""
import argparse
import ctypes
import datetime
import os
import signal
import socket
import sys
import threading
import time
from dataclasses import dataclass, field
from typing import Callable

from harness import documents, network
from harness.cloud import DATA_DOWN, DATA_UP, RESPONSE, VERIFY, BackEnd
from harness.local import listen
from harness.pair import CLOUD_ADDRESS, Pair, enter_linked_networks
from harness.tls import HOST
from harness.waiting import poll
from harness.workspace import Workspace

import ends
import loss
import speed
from ends import End, Probe, echo_ping

SWITCHED_OFF = ("I", "end the cloud channel.")
SILENT = network.FILTERED_ADDRESS  # packets to it are swallowed


class Bench:
    """A pair with services of every kind, a probe's session, and what a row has begun."""

    def __init__(self, workspace, cloud, row):
        self.cloud, self._ends, self.certificates = cloud, [], workspace.certificates
        services = {"filtered": (SILENT, 9), "nameless": ("service.test", 9)}
        for behave in (ends.echo, ends.source, ends.sink, ends.deaf, ends.crawler):
            listener = listen(2304 if behave is ends.crawler else None)
            end = self._keep(End(behave, listener, is_listener=True))
            services[behave.__name__] = ("127.0.0.1", end.port)
        self.services, self._held = services, []
        self.pair = Pair(workspace, cloud, row.name, services, row.config, row.files,
                         back_end=row.back_end)
        self.notes = {}

    def _keep(self, end):
        self._ends.append(end)
        return end

    def client(self, service, behave=None, count=1):
        """Connects to the service, `count` times; the last connection, or what behaves on it."""
        for _ in range(count):
            end = self.pair.client(service)
            if behave:
                end = self._keep(End(behave, end))
            else:
                self._held.append(end)
        return end

    def close(self):
        for end in self._ends:
            end.stop()
        for connection in self._held:
            connection.close()
        speed.limit(self.cloud)
        return self.pair.close()


def settle(seconds):
    return lambda bench: time.sleep(seconds)


def flood(bench):
    """The client of a sink sends without a pause, and another session carries bytes up."""
    alone = bench.client("source", ends.sink)
    bench.notes["up alone"] = f"{alone.rate(3):.0f} MB/s"
    down = bench.client("sink", ends.source)
    time.sleep(1)
    bench.notes["up"] = f"{alone.rate(4):.1f} MB/s"
    bench.notes["down"] = f"{down.rate(4):.0f} MB/s"


def flood_only(bench):
    bench.client("sink", ends.source)
    time.sleep(10)


def switched(bench):
    """Off and on again five times under the flood."""
    times = []
    for _ in range(5):
        flooding = bench.client("sink", ends.source)
        time.sleep(1.5)
        times.append(max(0, bench.pair.switch(False, SWITCHED_OFF)) * 1000)
        flooding.stop()
        bench.pair.ask("OpenRemoteAccess")
        bench.pair.wait_for_answer(1)
    bench.notes["switch-off 5 times, longest"] = f"{max(times):.0f} ms"


def deaf_operator(bench):
    """Its session fills at the back end, which then reads nothing of the whole channel."""
    bench.client("source")
    time.sleep(45)


def feed(service, seconds):
    def stall(bench):
        bench.client(service, ends.source)
        time.sleep(seconds)
    return stall


def slow_uplink(bits_per_s, sessions, seconds):
    def stall(bench):
        speed.limit(bench.cloud, uplink=bits_per_s)
        bench.client("source", ends.sink, sessions)
        time.sleep(seconds)
    return stall


def stopped_back_end(sessions):
    def stall(bench):
        bench.client("source", ends.sink, sessions)
        time.sleep(2)
        bench.pair.back_end.send_signal(signal.SIGSTOP)
        time.sleep(8)  # the kernel's buffers fill first
    return stall


def refused(service, count):
    """Clients of a service that cannot be reached; over when the last one has been turned away."""
    def stall(bench):
        waiting = [bench.pair.client(service) for _ in range(count)]
        for connection in waiting:
            try:
                connection.settimeout(120)
                connection.recv(1)
            except ConnectionError:
                pass
            connection.close()
    return stall


def opening(bench):
    """Fails for want of a name; the switch-off comes in the middle of an attempt."""
    log = bench.pair.gateway.log
    log.wait("I", "gw_remoteaccess_ping_period : 80")  # the settings are there
    bench.pair.switch(True, ("I", "start to create cloud channel..."))
    time.sleep(3)


def slow_server(bench):
    """Each opening gets as far as it may, as late as it may: TLS after 9.5 s, and then no word."""
    listener = socket.create_server(("127.0.0.1", bench.pair.listen))
    context, held = bench.certificates.context(), []

    def serve():
        while True:
            connection, _ = listener.accept()
            time.sleep(9.5)
            held.append(context.wrap_socket(connection, server_side=True))

    threading.Thread(target=serve, daemon=True).start()
    time.sleep(45)


def thread_queries(count):
    """Asked all at once, each on a connection of its own."""
    def stall(bench):
        askers = [threading.Thread(target=bench.pair.ask, args=("queryRemoteThreadRunState", bus))
                  for bus in [bench.pair.bus() for _ in range(count)]]
        for asker in askers:
            asker.start()
        for asker in askers:
            asker.join()
    return stall


def yescrypt(cost):
    library = ctypes.CDLL("libcrypt.so.1")
    library.crypt.restype = library.crypt_gensalt.restype = ctypes.c_char_p
    setting = library.crypt_gensalt(b"$y$", ctypes.c_ulong(cost), None, 0)
    return library.crypt(b"correct horse", setting).decode()


def accounts(cost):
    return {"etc/passwd": "operator:x:1000:1000::/:/bin/sh\n",
            "etc/shadow": f"operator:{yescrypt(cost)}:19000:0:99999:7:::\n",
            "etc/hosts": f"127.0.0.1 localhost {HOST}\n"}


ACCOUNT = b'{"username":"operator","password":"correct horse"}'


def account_check(bench):
    for _ in range(5):
        bench.channel.send(VERIFY, ACCOUNT, "check")
        answer = bench.channel.expect(RESPONSE, "check", seconds=60)
        assert answer.answer[0] == 0, answer
        time.sleep(0.1)


@dataclass
class Row:
    """One stall. `begin` starts it and returns when it has been watched for long enough."""
    name: str
    what: str
    begin: Callable
    config: dict = field(default_factory=dict)
    files: dict = field(default_factory=dict)
    back_end: bool = True  # False: a scripted one, which asks what the real one cannot
    echo: bool = True      # there is a session to probe
    off: tuple = SWITCHED_OFF  # the line of the switch-off; () for none


def resolver(servers):
    return {"etc/hosts": f"127.0.0.1 localhost\n{CLOUD_ADDRESS} {HOST}\n",
            "etc/resolv.conf": "".join(f"nameserver {SILENT[:-1]}{n}\n" for n in range(servers))}


CLOSED = {"gw_system_cloud_long_connection": 1}
ROWS = [
    Row("idle", "nothing", settle(5)),
    Row("deaf", "a local service that does not read, at full speed", feed("deaf", 15)),
    Row("crawler", "a local service that reads 50 KB/s through a buffer of 2 KB",
        feed("crawler", 30)),
    Row("stopped-1", "a channel that does not drain, 1 readable session", stopped_back_end(1),
        echo=False),
    Row("stopped-31", "the same, 31 readable sessions", stopped_back_end(31), echo=False),
    Row("stopped-31-10s", "the same, time-out of 10 s", stopped_back_end(31),
        {"gw_remoteaccess_trans_timeout": 10000}, echo=False),
    Row("uplink-1-1", "an uplink of 1 Mbit/s, 1 readable session", slow_uplink(1e6, 1, 30)),
    Row("uplink-10-31", "an uplink of 10 Mbit/s, 31 readable sessions", slow_uplink(1e7, 31, 20)),
    Row("uplink-1-31", "an uplink of 1 Mbit/s, 31 readable sessions", slow_uplink(1e6, 31, 75)),
    Row("name-1", "a session to a name, 1 name server that does not answer",
        refused("nameless", 1), files=resolver(1), off=()),
    Row("name-3", "the same, 3 name servers", refused("nameless", 1), files=resolver(3),
        off=()),
    Row("opening", "an opening of the channel, 3 name servers that do not answer", opening,
        {"gw_remoteaccess_cloud_host": "cloud.nowhere.test", **CLOSED}, resolver(3), False, False,
        ("W", "cloud channel open failed")),
    Row("opening-slow", "an opening of the channel, a server that is as slow as it may be",
        slow_server, {}, {"etc/hosts": f"127.0.0.1 localhost {HOST}\n"}, False, False,
        ("W", "cloud channel open failed")),
    Row("filtered-1", "1 new session to a filtered port", refused("filtered", 1), off=()),
    Row("filtered-30", "30 new sessions to filtered ports at once", refused("filtered", 30),
        off=()),
    Row("yescrypt-5", "an account check, yescrypt at its default cost (5)", account_check,
        files=lambda: accounts(5), back_end=False, off=()),
    Row("yescrypt-9", "an account check, yescrypt at cost 9", account_check,
        files=lambda: accounts(9), back_end=False, off=()),
    Row("yescrypt-11", "an account check, yescrypt at cost 11, the highest", account_check,
        files=lambda: accounts(11), back_end=False, off=()),
    Row("queries", "30 calls of `queryRemoteThreadRunState` at once", thread_queries(30)),
    Row("flood", "a back end that saturates the channel", flood_only),
    Row("both", "the same, and a session that carries bytes up as fast as it can", flood),
    Row("switched", "a back end that saturates the channel, switched off and on", switched,
        echo=False, off=()),
    Row("deaf-operator", "an operator of the reference back end that does not read",
        deaf_operator),
]


def scripted_ping(bench):
    """The probe over a scripted back end."""
    server = BackEnd(tls=bench.certificates.context(), port=bench.pair.listen)
    bench.channel = server.channel(seconds=30)
    bench.pair.wait_for_answer(1)
    session = bench.channel.open(bench.services["echo"][1])

    def ping():
        bench.channel.send(DATA_DOWN, bytes(64), token=session)
        bench.channel.expect(DATA_UP, token=session, seconds=60)
    return ping


def start_probe(bench, row):
    if not row.echo:
        return None
    ping = echo_ping(bench.client("echo")) if row.back_end else scripted_ping(bench)
    probe = Probe(ping)
    poll(lambda: len(probe.times) > 5, 10, "the first echoes")
    probe.times.clear()
    return probe


def measure(workspace, cloud, row):
    """The row's cells, and what went wrong."""
    row.files = row.files() if callable(row.files) else row.files
    bench = Bench(workspace, cloud, row)
    pair, cells = bench.pair, {"echo": None, "off": None}
    try:
        probe = start_probe(bench, row)
        bus = pair.bus()
        bus_probe = Probe(lambda: pair.ask("queryRemoteChannelState", bus))
        row.begin(bench)
        if row.off:  # ends the probe's session, too
            cells["off"] = max(0, pair.switch(False, row.off)) * 1000
        cells["echo"] = probe and probe.stop()
        cells["bus"] = bus_probe.stop()
        cells["gaps"] = pair.feed_gaps()
        cells["note"] = ", ".join(f"{key} {value}" for key, value in bench.notes.items())
    finally:
        if pair.back_end:
            pair.back_end.send_signal(signal.SIGCONT)
        faults = bench.close()
    return cells, faults


def in_ms(value):
    return "-" if value is None else f"{value:.1f}" if value < 10 else f"{value:,.0f}"


def stalls_table(rows=None):
    lines = ["| A stall of | echo p50 | echo longest | bus longest | switch-off | longest feed gap "
             "| beside it |", "|---|--:|--:|--:|--:|--:|---|"]
    failed, cloud = [], enter_linked_networks()
    with Workspace() as workspace:
        for row in rows or ROWS:
            try:
                cells, faults = measure(workspace, cloud, row)
            except AssertionError as error:
                failed.append(f"{row.name}: {error}")
                continue
            failed += [f"{row.name}: {fault}" for fault in faults]
            echo = cells["echo"] or (None, None, 0)
            lines.append(f"| {row.what} | {in_ms(echo[0])} | {in_ms(echo[1])} | "
                         f"{in_ms(cells['bus'][1])} | {in_ms(cells['off'])} | "
                         f"{max(cells['gaps'].values()):.1f} s | {cells['note'] or '-'} |")
            print(f"{row.name}: {lines[-1]} {echo[2]} echoes, {cells['bus'][2]} calls", flush=True)
    return lines, failed


# The streams fork: they come before this process has threads.
TABLES = {"loss-up": loss.up_table, "loss-down": loss.down_table, "stalls": stalls_table}


def machine():
    load = os.getloadavg()[0]
    return (f"Measured on {datetime.date.today()}, Linux {os.uname().release}, {os.cpu_count()} "
            f"cores, load {load:.1f} at the start.")


def main():
    parser = argparse.ArgumentParser(prog="scripts/stalls", description=__doc__)
    parser.add_argument("what", nargs="*", default=[*TABLES],
                        help=f"of {' '.join(TABLES)}; or rows, which are printed only: "
                        + " ".join(row.name for row in ROWS))
    documents.add_option(parser)
    options = parser.parse_args()
    rows = [row for row in ROWS if row.name in options.what]
    if len(rows) + sum(name in TABLES for name in options.what) != len(options.what):
        parser.error("that is neither a table nor a row")
    if renewed := [name for name in options.what if name in TABLES and not options.print]:
        documents.refuse_under_load("limits.md")
    failed = []
    for name in options.what:
        if name in TABLES:
            text = machine()
            lines, faults = TABLES[name]()
            failed += faults
            if name in renewed and not faults:
                documents.replace_section("limits.md", name, "\n".join([text, "", *lines]))
            print("\n".join(lines), flush=True)
    if rows:
        failed += stalls_table(rows)[1]
    print("\n".join(failed))
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
