"""A thousand sessions: nothing leaks and no byte is lost."""
import os
import random
import re

from harness.cloud import DATA_DOWN, BackEnd
from harness.local import LocalService
from harness.sandbox import BIN

ROUNDS, WARM_UP, AT_ONCE = 50, 10, 20
INSTRUMENTED = re.search(rb"__[at]san_init", (BIN / "remote_access_daemon").read_bytes()) is not None
# Instrumented builds keep what was freed for a while.
GROWTH_LIMIT_KB = 16384 if INSTRUMENTED else 1024


def descriptors(pid):
    return len(os.listdir(f"/proc/{pid}/fd"))


def resident_kb(pid):
    with open(f"/proc/{pid}/status", encoding="ascii") as status:
        return int(re.search(r"VmRSS:\s+(\d+) kB", status.read())[1])


def one_round(channel, echo, chance):
    """Sessions side by side; each gets its own bytes back."""
    sessions = {channel.open(echo.port): chance.randbytes(chance.choice([1, 100, 1024, 30000]))
                for _ in range(AT_ONCE)}
    for session, data in sessions.items():
        channel.send(DATA_DOWN, data, token=session)
    for session, data in sessions.items():
        assert b"".join(channel.collect(session, len(data))) == data
    for session in sessions:
        assert channel.release(session).answer[0] == 0


def test_thousand_sessions(launch, echo):
    back_end = BackEnd()
    gateway = launch(thousand={"cloud": back_end.port, "files": {
        "brimlock/gateway/build/config/logger.conf": "level=1\n"}})["thousand"]
    channel, pid, chance = back_end.channel(), gateway.daemon.pid, random.Random(1)
    gateway.log.wait("I", "handshake response code is 0!")
    idle = descriptors(pid)
    for _ in range(WARM_UP):
        one_round(channel, echo, chance)
    before = resident_kb(pid)
    for _ in range(ROUNDS):
        one_round(channel, echo, chance)
    assert resident_kb(pid) - before < GROWTH_LIMIT_KB
    assert descriptors(pid) == idle
    assert not channel.unread and not channel.errors


def test_sessions_that_the_services_end(launch):
    """The other ways out of the table give their descriptors back, too."""
    back_end, service = BackEnd(), LocalService()
    gateway = launch(ended={"cloud": back_end.port})["ended"]
    channel, pid = back_end.channel(), gateway.daemon.pid
    gateway.log.wait("I", "handshake response code is 0!")
    idle = descriptors(pid)
    for _ in range(100):
        session = channel.open(service.port)
        service.accept().close()
        channel.expect(5, token=session)
    channel.settle()
    assert descriptors(pid) == idle
    for _ in range(32):
        channel.open(service.port)
    assert descriptors(pid) == idle + 32
    channel.abort()
    back_end.channel(1).handshake
    gateway.log.wait("I", "handshake response code is 0!", count=2)
    assert descriptors(pid) == idle
