"""A thousand sessions: nothing leaks and no byte is lost."""
import os
import random
import re

from harness.cloud import DATA_DOWN, RELEASE
from harness.local import LocalService
from harness.sandbox import BIN, CONFIG_DIR

INSTRUMENTED = re.search(rb"__[at]san_init", (BIN / "remote_access_daemon").read_bytes())
# Instrumented builds keep what was freed for a while.
GROWTH_LIMIT_KB = 16384 if INSTRUMENTED else 1024


def descriptors(gateway):
    return len(os.listdir(f"/proc/{gateway.daemon.pid}/fd"))


def resident_kb(gateway):
    with open(f"/proc/{gateway.daemon.pid}/status", encoding="ascii") as status:
        return int(re.search(r"VmRSS:\s+(\d+) kB", status.read())[1])


def twenty_sessions(channel, echo, chance):
    """Side by side; each gets its own bytes back."""
    sessions = {channel.open(echo): chance.randbytes(chance.choice([1, 1024, 30000]))
                for _ in range(20)}
    for session, data in sessions.items():
        channel.send(DATA_DOWN, data, token=session)
    for session, data in sessions.items():
        assert b"".join(channel.collect(session, len(data))) == data
        assert channel.release(session).answer[0] == 0


def test_thousand_sessions(connect, echo):
    link = connect("thousand", files={f"{CONFIG_DIR}/logger.conf": "level=1"})
    chance = random.Random(1)
    idle = descriptors(link.gateway)
    for _ in range(10):
        twenty_sessions(link.channel, echo, chance)
    before = resident_kb(link.gateway)
    for _ in range(50):
        twenty_sessions(link.channel, echo, chance)
    assert resident_kb(link.gateway) - before < GROWTH_LIMIT_KB
    assert descriptors(link.gateway) == idle
    assert not link.channel.unread and not link.channel.errors


def test_every_way_out_of_the_table_closes_the_socket(connect):
    link, service = connect("ended"), LocalService()
    idle = descriptors(link.gateway)
    for _ in range(100):
        session = link.channel.open(service.port)
        service.accept().close()
        link.channel.expect(RELEASE, token=session)
    link.channel.settle()
    assert descriptors(link.gateway) == idle
    for _ in range(32):
        link.channel.open(service.port)
    assert descriptors(link.gateway) == idle + 32
    link.channel.transport("abort")
    link.back_end.channel(1)
    link.log.wait("I", "handshake response code is 0!", count=2)
    assert descriptors(link.gateway) == idle
