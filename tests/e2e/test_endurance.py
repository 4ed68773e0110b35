"""A thousand sessions: nothing leaks, no byte is lost, and no message costs an allocation. What
scripts/leaks does at length."""
import random

import pytest

from harness.cloud import DATA_DOWN, RELEASE
from harness.footprint import COUNTED, INSTRUMENTED, allocations, footprint
from harness.local import LocalService

# Instrumented builds keep what was freed for a while.
GROWTH_LIMIT_KB = 16384 if INSTRUMENTED else 256


def descriptors(gateway):
    return footprint(gateway).descriptors


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
    link = connect("thousand", **({} if INSTRUMENTED else COUNTED))
    chance = random.Random(1)
    idle = footprint(link.gateway)
    for _ in range(10):
        twenty_sessions(link.channel, echo, chance)
    before = footprint(link.gateway)
    for _ in range(50):
        twenty_sessions(link.channel, echo, chance)
    after = footprint(link.gateway)
    assert after.resident_kb - before.resident_kb < GROWTH_LIMIT_KB
    assert (after.descriptors, after.threads) == (idle.descriptors, idle.threads)
    assert after.blocks - before.blocks < 10
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


@pytest.mark.skipif(bool(INSTRUMENTED), reason="a sanitizer has its own malloc")
@pytest.mark.parametrize("tls", [0, 1])
def test_no_allocation_for_a_message(connect, certificates, echo, tls):
    link = connect(f"counted-{tls}", certificates.context() if tls else None, **COUNTED,
                   authority=certificates.authority if tls else None)
    session, count = link.channel.open(echo), 200

    def carry():
        for size in (1, 50000) * (count // 2):
            link.channel.send(DATA_DOWN, bytes(size), token=session)
            link.channel.collect(session, size)

    carry()  # the buffers grow to their size
    before = allocations(link.gateway)
    carry()
    calls = allocations(link.gateway) - before
    assert calls.program == 0 and calls.others < count // 2, calls
    assert bool(calls.openssl) == bool(tls)  # or it would not have counted
