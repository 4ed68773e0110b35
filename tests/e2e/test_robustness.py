"""Resource limits and log injection: few descriptors or very large ones, little memory; and bytes
from outside that imitate log lines."""
import re

import pytest

from harness.cloud import NEW_SESSION, RELEASE, RESPONSE, VERIFY, new_session_request
from harness.footprint import INSTRUMENTED, footprint
from harness.modules import BRIDGE
from harness.private_bus import Peer
from harness.sandbox import COMMAND, NAME
from harness.waiting import poll, run

# The limit, descriptors that are taken before the start, how many sessions fit, and the answer to
# the next one. select takes no descriptor above 1023.
DESCRIPTORS = {"64": (64, 0, range(32, 33), 101604), "20": (20, 0, range(8, 14), 101671),
               "past-select": (4096, 1010, range(4, 14), 101671)}
# From too little for the libraries to nearly enough for a channel.
MEMORY_KB = (9000, 16000, 20000, 28000, 36000, 50000)
FORGED = "x\n2026-01-01T00:00:00.000Z I remote_access_daemon src/f.cpp:1 f: forged\r\x1b[2J\x7f"


def shell(script):
    """The daemon, started behind a script."""
    return {"command": ("/bin/bash", "-c", f"{script}; exec {' '.join(COMMAND)}")}


def take(count):
    return f'for ((fd = 3; fd < {count}; fd++)); do eval "exec $fd</dev/null"; done'


@pytest.mark.parametrize("case", DESCRIPTORS)
def test_descriptors_run_out(connect, echo, case):
    limit, taken, fitting, code = DESCRIPTORS[case]
    link = connect(f"fd-{case}", **shell(f"ulimit -n {limit}; {take(taken)}"))
    link.channel.settle()  # the opening, too, has a descriptor for a moment
    idle = footprint(link.gateway).descriptors
    for _ in range(2):  # what was released is free again
        sessions = []
        while (response := link.channel.request(
                NEW_SESSION, new_session_request(echo))).answer[0] == 0:
            sessions.append(response.token)
        assert response.answer[0] == code and len(sessions) in fitting
        assert footprint(link.gateway).descriptors == idle + len(sessions)
        for session in sessions:
            assert link.channel.release(session).answer[0] == 0
        assert footprint(link.gateway).descriptors == idle


@pytest.mark.skipif(bool(INSTRUMENTED), reason="a sanitizer needs more memory than it touches")
def test_little_memory(launch):
    """The loader's message, or a line that says what failed and status 255, or a daemon that runs
    and keeps trying: nothing else."""
    gateways = launch(**{f"memory-{size}": {
        **shell(f"ulimit -v {size}"), "ends": [1, 127, 255],
        "strays": ".*: error while loading shared libraries: .*"} for size in MEMORY_KB})
    outcomes = set()
    for gateway in gateways.values():
        process = gateway.daemon
        poll(lambda: process.status is not None or process.log.find(
            "W", "cloud channel open failed"), 10, process.log.tail)
        outcomes.add(process.status)
        last = [line.level for line in process.log.lines[-1:]]
        assert process.status is None or last == {127: [], 255: ["E"]}[process.status]
    assert {127, 255, None} == outcomes


def test_no_line_is_forged(connect):
    """Each of these is logged with what it holds."""
    link = connect("forged", config={"gw_remoteaccess_debug_switch": 1}, services=[
        {"type": "T", "name": FORGED[:31], "ip": "127.0.0.1", "port": 1}])
    channel, log = link.channel, link.log
    peer = Peer(link.gateway.address, BRIDGE)
    attempts = [
        lambda: channel.send_raw(FORGED.encode()),
        lambda: channel.send(RELEASE, token=FORGED, msg_id=FORGED),
        lambda: channel.send(RESPONSE, FORGED.encode()),
        lambda: channel.send(VERIFY, FORGED.encode()),
        lambda: channel.send(NEW_SESSION, new_session_request(1, ip=FORGED, name=FORGED)),
        lambda: peer.signal(BRIDGE, "subscribe_event", FORGED, FORGED, to=NAME),
        lambda: peer.begin(NAME, "notify_config", "ss", FORGED, FORGED),
        lambda: run(channel.ws.close(1001, FORGED))]
    for attempt in attempts:
        mark = log.mark()
        attempt()
        poll(lambda: any("2026-01-01T" in line.text for line in log.lines[mark:]), 5, log.tail)
    assert log.find("I", re.compile(r"local service list info : .*x\\n2026-01-01T.*"))
    assert not log.strays and not any(line.text.startswith("forged") for line in log.lines)
