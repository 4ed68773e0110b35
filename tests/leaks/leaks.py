"""Thousands of sessions and reconnections, and what the daemon holds before and after: memory,
descriptors and threads must not have grown. Counts its allocations for a message, too, and writes
both down in docs/limits.md. See scripts/leaks."""
import argparse
import asyncio
import concurrent.futures
import contextlib
import os
import random
import socket
import ssl
import subprocess
import sys
import time

from harness import documents, network
from harness.cloud import DATA_DOWN, RELEASE, BackEnd
from harness.footprint import COUNTED, Footprint, allocations, footprint, held_by
from harness.local import RESET
from harness.sandbox import BIN, Gateway, start_gateways
from harness.waiting import poll, run
from harness.workspace import Workspace

# What a line may rise and still be flat. Pages that are touched for the first time and what the C
# library keeps for later account for it; 16 bytes leaked by each session would be more.
SESSIONS_RISE_KB, RECONNECTS_RISE_KB = 128, 192
BLOCKS_RISE = 10  # libdbus and the C library keep a few for later
BACK_END_RISE_KB, WARM_ROUNDS, ROUNDS, ROUND = 256, 3, 20, 1000
SESSIONS, RECONNECTS, GATEWAYS, BATCH, MESSAGES = 10000, 1000, 10, 20, 500
ACCEPTED = ("I", "handshake response code is 0!")
KINDS = ("closed", "reset", "refused")


async def _serve(reader, writer):
    """A local service whose first byte says what it does: echo, close, reset, take, or give a
    piece for each further byte."""
    kind = b""
    try:
        kind = await reader.readexactly(1)
        if kind == b"r":
            writer.get_extra_info("socket").setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, RESET)
        while kind in b"etg" and (data := await reader.read(1 << 16)):
            if kind == b"e":
                writer.write(data)
            elif kind == b"g":
                writer.write(bytes(50000) * len(data))
    except (OSError, asyncio.IncompleteReadError):
        pass
    writer.transport.abort() if kind == b"r" else writer.close()


def start_service():
    port = network.free_port()
    run(asyncio.start_server(_serve, "127.0.0.1", port, backlog=256))
    return port


class Link:
    """A gateway with its back end, whose channel is accepted."""

    def __init__(self, workspace, name, tls=True):
        certificates = workspace.certificates
        self.context = certificates.context() if tls else None
        self.back_end, self.refusals = BackEnd(tls=self.context), 0
        self.gateway = Gateway(
            workspace.directory, name, cloud=self.back_end.port, level=1,
            authority=certificates.authority if tls else None,
            config={"gw_remoteaccess_trans_timeout": 2000}, **COUNTED)

    def accepted(self):
        """The channel that is open now."""
        channel = self.back_end.channel(len(self.back_end.channels) - 1, seconds=30)
        channel.settle()
        return channel

    def break_channel(self, kind):
        """Ends the channel, and waits until the next one works."""
        channel, failed = self.accepted(), ("W", "cloud channel open failed")
        seen = len(self.back_end.channels)
        if kind == "closed":
            channel.close()
        elif kind == "reset":
            channel.ws.transport.get_extra_info("socket").setsockopt(
                socket.SOL_SOCKET, socket.SO_LINGER, RESET)
            channel.transport("abort")
        else:
            before = len(self.gateway.log.find(*failed))
            self.back_end.close()
            self.gateway.log.wait(*failed, count=before + 1, seconds=20)
            self.refusals += 1
            self.back_end, seen = BackEnd(tls=self.context, port=self.back_end.port), 0
        poll(lambda: len(self.back_end.channels) > seen, 30, f"a channel after one was {kind}")
        self.accepted()

    def at_rest(self):
        """What the daemon holds with an idle channel."""
        self.accepted()
        time.sleep(1)
        return footprint(self.gateway)


def run_sessions(link, port, count, chance):
    channel = link.accepted()
    for _ in range(count // BATCH):
        kinds = {channel.open(port): chance.choice("eecr") for _ in range(BATCH)}
        data = {session: chance.randbytes(chance.choice([1, 1024, 30000])) for session in kinds}
        for session, kind in kinds.items():
            channel.send(DATA_DOWN, kind.encode() + data[session] * (kind == "e"), token=session)
        for session, kind in kinds.items():
            if kind == "e":
                assert b"".join(channel.collect(session, len(data[session]))) == data[session]
                assert channel.release(session).answer[0] == 0
            else:
                channel.expect(RELEASE, token=session)
        channel.settle()
        channel.unread.clear()
        assert not channel.errors, channel.errors


def measure_sessions(link, port, count):
    chance = random.Random(1)
    run_sessions(link, port, max(count // 10, BATCH), chance)
    before = link.at_rest()
    run_sessions(link, port, count, chance)
    return before, link.at_rest()


def run_connections(port, context):
    """A round: connections that send nothing, some that end after TLS, the others after a part of
    it."""
    for _ in range(ROUND // BATCH):
        with contextlib.ExitStack() as stack:
            for number in range(BATCH):
                one = stack.enter_context(socket.create_connection(("127.0.0.1", port)))
                if number % 3 == 1:
                    one.sendall(b"\x16\x03\x01\x02")
                elif number % 3 == 2:
                    stack.enter_context(context.wrap_socket(one))


def measure_back_end(workspace):
    """What it holds after a few rounds of connections without a handshake, and after ROUNDS."""
    port, context = network.free_port(), ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT)
    context.check_hostname, context.verify_mode = False, ssl.CERT_NONE
    devices = workspace.directory / "devices.json"
    devices.touch(0o600)
    devices.write_text('{"devices": [{"product_key": "p", "device_name": "d", '
                       '"device_secret": "s"}]}')
    certificate, key = workspace.certificates.paths()
    held = []
    with open(os.devnull, "wb") as sink, subprocess.Popen(
            [BIN / "remote_access_backend", "--listen", f"127.0.0.1:{port}", "--cert", certificate,
             "--key", key, "--devices", devices], stdout=sink, stderr=sink) as process:
        try:
            poll(lambda: socket.socket().connect_ex(("127.0.0.1", port)) == 0, 10, "the back end")
            for number in range(1, ROUNDS + 1):
                run_connections(port, context)
                if number in (WARM_ROUNDS, ROUNDS):
                    time.sleep(8)  # until it has given back what it does not need
                    held.append(held_by(process.pid))
        finally:
            process.terminate()
    return held


def is_even(before, after):
    return (before.descriptors == after.descriptors and before.threads == after.threads
            and after.blocks - before.blocks <= BLOCKS_RISE)


def measure_reconnects(links, count):
    """Side by side: what they hold on the average before and after, and who is left with more."""
    def work(link):
        for kind in KINDS * 4:
            link.break_channel(kind)
        before, link.refusals = link.at_rest(), 0
        for number in range(count // len(links)):
            link.break_channel(KINDS[number % len(KINDS)])
        return before, link.at_rest()

    with concurrent.futures.ThreadPoolExecutor(len(links)) as pool:
        pairs = list(pool.map(work, links))

    def sum_up(side):
        held = [pair[side] for pair in pairs]
        return Footprint(round(sum(one.own_kb for one in held) / len(held)),
                         max(one.descriptors for one in held), max(one.threads for one in held),
                         max(one.blocks for one in held))
    uneven = [pair for pair in pairs if not is_even(*pair)]
    return sum_up(0), sum_up(1), uneven


def measure_allocations(link, port):
    """Allocations for MESSAGES messages of 50 KB: by direction, the program's and OpenSSL's."""
    channel, found = link.accepted(), {}
    down, up = channel.open(port), channel.open(port)
    channel.send(DATA_DOWN, b"t", token=down)
    channel.send(DATA_DOWN, b"g", token=up)

    def carry_down(count):
        for _ in range(count):
            channel.send(DATA_DOWN, bytes(50000), token=down)
        channel.settle()
        return count

    def carry_up(count):
        pieces = 0
        for _ in range(count):
            channel.send(DATA_DOWN, b"x", token=up)
            pieces += len(channel.collect(up, 50000))
        return pieces

    for direction, carry in (("to the service", carry_down), ("to the cloud", carry_up)):
        carry(20)  # the buffers have grown to their size after that
        before = allocations(link.gateway)
        messages = carry(MESSAGES)
        found[direction] = messages, allocations(link.gateway) - before
    return found


def footprint_row(what, before, after):
    pairs = ((before.own_kb, after.own_kb), (before.blocks, after.blocks),
             (before.descriptors, after.descriptors), (before.threads, after.threads))
    return f"| {what} | " + " | ".join(f"{old} → {new}" for old, new in pairs) + " |"


def report(arguments, sessions, reconnects, back_end, counted, refusals):
    each = arguments.reconnects // GATEWAYS
    lines = [
        "| What a daemon holds before and after | own memory, KB | heap blocks | descriptors "
        "| threads |",
        "|---|---|---|---|---|",
        footprint_row(f"{arguments.sessions} sessions over TLS, released by the back end, closed "
                      "or reset by the service", *sessions),
        footprint_row(f"{each * GATEWAYS} reconnections over TLS, {each} for each of {GATEWAYS} "
                      f"daemons (mean): channel closed, reset, or lost and refused ({refusals} "
                      "refusals)", *reconnects[:2]),
        footprint_row(f"the back end: {ROUNDS - WARM_ROUNDS} rounds of {ROUND} connections that "
                      "fall silent or end before, in or after TLS", *back_end), "",
        f"| Allocations for {MESSAGES} messages of 50 KB | the daemon with its WebSocket adapter | "
        "OpenSSL, for each message |", "|---|---|---|"]
    for transport, directions in counted.items():
        for direction, (messages, calls) in directions.items():
            openssl = f"{calls.openssl / messages:.1f}" if transport == "TLS" else "-"
            lines.append(f"| {direction}, {transport} | {calls.program} | {openssl} |")
    return "\n".join(lines)


def judge(sessions, reconnects, back_end, counted):
    before, after = sessions
    if after.own_kb - before.own_kb > SESSIONS_RISE_KB:
        yield f"own memory rose by more than {SESSIONS_RISE_KB} KB over the sessions"
    if not is_even(before, after):
        yield "blocks, descriptors or threads are left over from the sessions"
    before, after, uneven = reconnects
    if after.own_kb - before.own_kb > RECONNECTS_RISE_KB:
        yield f"own memory rose by more than {RECONNECTS_RISE_KB} KB over the reconnections"
    if uneven:
        yield f"blocks, descriptors or threads are left over from the reconnections: {uneven}"
    before, after = back_end
    if after.own_kb - before.own_kb > BACK_END_RISE_KB:
        yield f"the back end's own memory rose by more than {BACK_END_RISE_KB} KB"
    if before.descriptors != after.descriptors:
        yield "descriptors of the back end are left over"
    for transport, directions in counted.items():
        for direction, (_, calls) in directions.items():
            if calls.program:
                yield f"{calls.program} allocations for messages {direction}, {transport}"
            if calls.others > MESSAGES // 2:
                yield f"{calls.others} allocations of other libraries {direction}, {transport}"


def measure(workspace, arguments):
    """The table, and what is not flat."""
    port, steady = start_service(), Link(workspace, "steady")
    counting = {"plain": Link(workspace, "plain", tls=False), "TLS": Link(workspace, "tls")}
    breaking = [Link(workspace, f"break{number}") for number in range(GATEWAYS)]
    links = [steady, *counting.values(), *breaking]
    try:
        start_gateways([link.gateway for link in links])
        for link in links:
            link.gateway.log.wait(*ACCEPTED, seconds=20)
        counted = {name: measure_allocations(link, port) for name, link in counting.items()}
        back_end = measure_back_end(workspace)
        sessions = measure_sessions(steady, port, arguments.sessions)
        reconnects = measure_reconnects(breaking, arguments.reconnects)
    finally:
        faults = [fault for link in links if link.gateway.daemon
                  for fault in link.gateway.stop()]
    text = report(arguments, sessions, reconnects, back_end, counted,
                  sum(link.refusals for link in breaking))
    return text, [*judge(sessions, reconnects, back_end, counted), *faults]


def main():
    parser = argparse.ArgumentParser(prog="scripts/leaks", description=__doc__)
    parser.add_argument("--sessions", type=int, default=SESSIONS)
    parser.add_argument("--reconnects", type=int, default=RECONNECTS)
    documents.add_option(parser)
    arguments = parser.parse_args()
    full = (arguments.sessions, arguments.reconnects) == (SESSIONS, RECONNECTS)
    renewed = full and not arguments.print
    if renewed:
        documents.refuse_under_load("limits.md")
    network.enter_private_network()
    with Workspace() as workspace:
        text, faults = measure(workspace, arguments)
    print(text)
    for fault in faults:
        print(f"not flat: {fault}", file=sys.stderr)
    if renewed and not faults:
        documents.replace_section("limits.md", "leaks", text)
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
