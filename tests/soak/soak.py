"""Sessions of random sizes both ways, opened and closed at random, each byte checked. See
scripts/soak."""
import argparse
import asyncio
import dataclasses
import hashlib
import random
import re
import socket
import struct
import sys
import time

from harness.footprint import held_by
from harness.local import listen
from harness.pair import Pair, enter_linked_networks
from harness.workspace import Workspace

SESSIONS = 32
SIZES = (0, 1, 100, 4096, 50172, 50173, 200_000, 1_000_000, 2_000_000)
PIECE = 1 << 16
BUFFER = 4 << 20  # a whole session fits: no pause of the machine can make the daemon drop bytes
SETTLE_S, OVERDUE_S = 10, 60
GROWTH_LIMIT_KB = 2048
# What the daemon says of sessions that end as these do. Everything else is a fault.
EXPECTED = re.compile(
    r"release session: \w+"                          # the service has closed
    r"|session id invalid: \w+"                      # what was under way to it then
    r"|want to write len: \d+, but writen len: \d+"  # a part now, the rest at once
    r"|system error:Connection reset by peer, errno:104\. local service exit, release session: \w+"
    r"|local service bad: (Connection reset by peer|Broken pipe), writenLen:-1"
    r"|local socker error! release this session|release the session: \w+"
    # There is no bridge to the cloud's topics here.
    r"|DBus error:The name iot\.bridge\.mqtt was not provided by any \.service files!"
    r"|dbus_connection_send_with_reply_and_block is error!")
EXPECTED_BACK_END = re.compile(r"data for the unknown session")


@dataclasses.dataclass
class Plan:
    """One session, known to both of its ends by its number, which the client sends first."""
    number: int
    up: bytes     # what the service sends
    down: bytes   # what the client sends
    end: str      # who ends it: "client" and "service" when all is there, "abort" before
    up_hash: str = ""
    down_hash: str = ""
    down_count: int = 0
    state: str = "opening"  # then "accepted" and "served", at the service


class Soak:
    """The sessions of one run."""

    def __init__(self, cloud, rate):
        self.cloud, self.rate, self.chance = cloud, rate, random.Random()
        self.pool = random.Random(1).randbytes(8 << 20)  # plans are stretches of it
        self.plans, self.done, self.up, self.down, self.faults = {}, 0, 0, 0, []
        self.ended, self.aborted = False, 0

    def plan(self):
        sizes = [self.chance.randint(0, size) if self.chance.random() < 0.7 else size
                 for size in self.chance.choices(SIZES, k=2)]
        up, down = (self.pool[start:start + size] for size in sizes
                    for start in (self.chance.randrange(len(self.pool) - size),))
        end = self.chance.choices(("client", "service", "abort"), (6, 3, 1))[0]
        plan = Plan(self.chance.getrandbits(63), up, down, end)
        self.plans[plan.number] = plan
        return plan

    async def serve(self, reader, writer):
        """A service on the gateway: it reads its bytes while it sends its own."""
        try:
            plan = self.plans[struct.unpack("<Q", await reader.readexactly(8))[0]]
        except (asyncio.IncompleteReadError, ConnectionError, KeyError):
            self.faults.append("a session without its client")
            return writer.close()
        plan.state = "accepted"
        sending = asyncio.create_task(self.send(writer, plan.up))
        try:
            plan.down_hash, plan.down_count = await self.receive(reader, len(plan.down))
            await sending
            if plan.end != "service":
                await reader.read(1)  # the end of the client
        except ConnectionError:
            pass
        sending.cancel()
        writer.close()
        plan.state = "served"

    async def send(self, writer, data):
        start = 0
        while start < len(data):
            piece = data[start:start + self.chance.randint(1, PIECE)]
            writer.write(piece)
            await writer.drain()
            start += len(piece)
            if self.chance.random() < 0.05:
                await asyncio.sleep(self.chance.random() * 0.2)

    async def receive(self, reader, size):
        """Hash and number of the bytes, at most `size`, up to the end of the stream."""
        digest, count = hashlib.sha256(), 0
        while count < size and (data := await reader.read(min(PIECE, size - count))):
            digest.update(data)
            count += len(data)
        return digest.hexdigest(), count

    async def client(self, port, plan):
        with self.cloud:
            sock = socket.socket()
        sock.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, BUFFER)
        sock.setblocking(False)
        await asyncio.get_running_loop().sock_connect(sock, ("127.0.0.1", port))
        reader, writer = await asyncio.open_connection(sock=sock)
        writer.write(struct.pack("<Q", plan.number))
        if plan.end == "abort":
            return await self.abort(writer, plan)
        sending = asyncio.create_task(self.send(writer, plan.down))
        plan.up_hash, count = await self.receive(reader, len(plan.up))
        await sending
        if plan.end == "service":
            count += len(await reader.read(1))  # nothing but the end
        self.check(plan, "up", plan.up, plan.up_hash, count)
        writer.close()
        await writer.wait_closed()
        await self.until(plan, "served")
        self.check(plan, "down", plan.down, plan.down_hash, plan.down_count)

    async def abort(self, writer, plan):
        """Whatever arrived at the service must be the first of what was sent."""
        await self.until(plan, "accepted")
        sending = asyncio.create_task(self.send(writer, plan.down))
        await asyncio.sleep(self.chance.random() * 0.3)
        sending.cancel()
        writer.transport.abort()
        await self.until(plan, "served")
        self.aborted += 1
        if plan.down_hash:
            self.check(plan, "down", plan.down[:plan.down_count], plan.down_hash, plan.down_count)

    def check(self, plan, way, data, digest, count):
        setattr(self, way, getattr(self, way) + count)
        if count != len(data) or hashlib.sha256(data).hexdigest() != digest:
            self.faults.append(f"session {plan.number}, {way}: {count} of {len(data)} bytes, "
                               f"SHA-256 {digest}, ended by {plan.end}")

    async def until(self, plan, state):
        while plan.state not in (state, "served"):
            await asyncio.sleep(0.01)

    async def work(self, port):
        """One after the other, at no more than this worker's share of the rate."""
        while not self.ended:
            plan, start = self.plan(), time.monotonic()
            try:
                await asyncio.wait_for(self.client(port, plan), OVERDUE_S)
                self.done += 1
            except (OSError, asyncio.TimeoutError) as error:
                self.faults.append(f"session {plan.number}, ended by {plan.end}: {error!r}")
            del self.plans[plan.number]
            least = (len(plan.up) + len(plan.down)) / (self.rate / SESSIONS)
            pause = start + least - time.monotonic()
            await asyncio.sleep(max(pause, 0.5 if self.faults else self.chance.random() * 0.1))


def warnings_of(pair):
    """The daemon's warnings and errors: how many were expected, and the others."""
    lines = [line for line in pair.gateway.log.lines if line.level in "WE"]
    others = [f"{line.level} {line.text}" for line in lines if not EXPECTED.fullmatch(line.text)]
    return len(lines) - len(others), others


def minute_line(soak, pair, start):
    held = held_by(pair.gateway.daemon.pid)
    expected, others = warnings_of(pair)
    print(f"{time.monotonic() - start:6.0f} s  {soak.done} sessions ({soak.aborted} aborted), "
          f"up {soak.up / 1e6:.0f} MB, down {soak.down / 1e6:.0f} MB, own memory {held.own_kb} "
          f"kB, {held.descriptors} descriptors, {held.threads} threads, warnings {expected} "
          f"expected, {len(others)} others, {len(soak.faults)} faults", flush=True)
    return held.own_kb


async def run_for(seconds, soak, pair, listener):
    server = await asyncio.start_server(soak.serve, sock=listener)
    start = time.monotonic()
    workers = [asyncio.create_task(soak.work(pair.ports["soak"])) for _ in range(SESSIONS)]
    await asyncio.sleep(min(20, seconds / 2))
    warm = minute_line(soak, pair, start)  # every buffer has grown to its size
    while (left := start + seconds - time.monotonic()) > 0:
        await asyncio.sleep(min(60, left))
        rss = minute_line(soak, pair, start)
    soak.ended = True
    await asyncio.gather(*workers)
    server.close()
    return rss - warm


def handles(pair):
    """Descriptors and threads of the daemon and of the back end."""
    pids = {"the daemon": pair.gateway.daemon.pid, "the back end": pair.back_end.pid}
    return {f"{what} of {name}": getattr(held_by(pid), what)
            for name, pid in pids.items() for what in ("descriptors", "threads")}


def left_over(pair, idle):
    """What has not gone a while after the last session's end."""
    deadline = time.monotonic() + SETTLE_S
    while True:
        listed = str(pair.ask("queryAllSessionInfo"))
        faults = [f"{what}: {idle[what]} before, {count} after"
                  for what, count in handles(pair).items() if count != idle[what]]
        if '"sessionList":[]' not in listed:
            faults.append(f"sessions left over: {listed}")
        if not faults or time.monotonic() > deadline:
            return faults
        time.sleep(0.1)


def main():
    parser = argparse.ArgumentParser(prog="scripts/soak")
    parser.add_argument("minutes", nargs="?", type=float, default=5)
    parser.add_argument("--rate", type=float, default=40, help="MB/s, both ways together")
    options = parser.parse_args()
    cloud = enter_linked_networks()
    with Workspace() as workspace:
        listener = listen(BUFFER)
        pair = Pair(workspace, cloud, "soak", {"soak": listener.getsockname()}, level=2)
        idle = handles(pair)
        soak = Soak(cloud, options.rate * 1e6)
        growth = asyncio.run(run_for(options.minutes * 60, soak, pair, listener))
        faults = soak.faults + left_over(pair, idle)
        if growth > GROWTH_LIMIT_KB:
            faults.append(f"own memory has grown by {growth} kB since the first line")
        faults += warnings_of(pair)[1]
        faults += [line for line in pair.gateway.log_beside("backend").splitlines()
                   if re.search(r" [WE] ", line) and not EXPECTED_BACK_END.search(line)]
        gaps = pair.feed_gaps()
        faults += pair.close()
    for fault in faults[:40]:
        print(fault)
    print(f"soak: {soak.done} sessions, {(soak.up + soak.down) / 1e6:.0f} MB checked, watchdog fed "
          f"every {max(gaps.values()):.1f} s or sooner, {len(faults)} faults")
    return 1 if faults or not soak.done else 0


if __name__ == "__main__":
    sys.exit(main())
