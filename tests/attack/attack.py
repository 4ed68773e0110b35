"""Attacks the real back end over TLS on loopback, and measures what an honest device notices of it.

Every row has a back end of its own, with a registry of made-up devices. The floods come from
tests/attack/flood.cpp; the honest device has the daemon's time-outs and pauses. See scripts/attack.
"""
import argparse
import datetime
import itertools
import json
import os
import platform
import signal
import statistics
import subprocess
import sys
import threading
import time
from dataclasses import dataclass

from harness import documents, network
from harness.local import listen
from harness.pair import Pair, enter_linked_networks
from harness.sandbox import BIN
from harness.waiting import poll
from harness.workspace import Workspace

from ends import ELSEWHERE, FLEET, HONEST, BackEnd, come_in
from replay import replays

IN_TIME_S, FAILURES, LOG_KB_S = 2.0, 1, 10.0
FLEET_TIME_S = 5.0


def visit(back_end, address, seconds, devices=3):
    """Devices that come in and leave again and again; what come_in() found each time."""
    visits, until = [], time.monotonic() + seconds

    def work(name):
        while time.monotonic() < until - 0.3:
            visits.append(come_in(back_end, name, address, until))
            time.sleep(0.3)

    threads = [threading.Thread(target=work, args=(f"true-{n}",)) for n in range(devices)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    # One that the end of the row met on its way says nothing.
    return [found for found in visits if found[2] or found[0] > IN_TIME_S]


# ---- floods

@dataclass
class Flood:
    """`count` connections of a kind of flood.cpp, from `addresses` addresses after `address`."""
    what: str
    kind: str
    count: int
    seconds: int = 5
    address: str = ELSEWHERE
    addresses: int = 1


# "Its own" is the honest device's address.
FLOODS = [
    Flood("nothing", "", 0),
    Flood("2,000 silent TCP connections", "silent", 2000, 10),
    Flood("the same, from the device's own address", "silent", 2000, 10, HONEST),
    Flood("2,000 that fall silent after TLS", "tls-silent", 2000, 10),
    Flood("the same, from the device's own address", "tls-silent", 2000, 10, HONEST),
    Flood("80 that send garbage after TLS, from its own address", "garbage", 80, 5, HONEST),
    Flood("80 with half an upgrade, from its own address", "half-upgrade", 80, 10, HONEST),
    Flood("32 handshakes of unknown devices", "unknown", 32),
    Flood("32 with wrong signatures", "wrong", 32),
    Flood("32 without a signature", "unsigned", 32),
    Flood("32 that connect and reset", "reset", 32),
    Flood("32 with 1 MB of header", "long-header", 32),
    Flood("1,000 with a WebSocket message of empty fragments", "fragments", 1000, 8),
    Flood("6,000 silent TCP connections of 200 addresses", "silent", 6000, 8, ELSEWHERE, 200),
    Flood("6,000 of 6,000 addresses", "silent", 6000, 8, ELSEWHERE, 6000),
    Flood("4,500 that fall silent after TLS, of 200", "tls-silent", 4500, 10, ELSEWHERE, 200),
    Flood("5,000 with a byte of TLS in 1.9 s", "slow-hello", 5000, 8),
    Flood("2,000 with a byte of the upgrade in 1.9 s", "slow-header", 2000, 10),
]
FLOOD_HEAD = """\
| Attack | in after, s | visits | not in | failed | CPU, % | RSS, MB | log, KB/s | \
attack: TCP/s | TLS/s | CPU, % | |
|---|--:|--:|--:|--:|--:|--:|--:|--:|--:|--:|---|"""


def start_flood(back_end, kind, count, seconds, address=ELSEWHERE, addresses=1):
    return subprocess.Popen(
        ["setpriv", "--pdeathsig", "KILL", BIN / "flood", kind, *map(str, (
            back_end.port, count, seconds, address, addresses))], stdout=subprocess.PIPE, text=True)


def end_flood(flood, at_once=False):
    if at_once:
        flood.terminate()
    return json.loads(flood.communicate()[0])


def run_flood(workspace, row, bytes_a_visit):
    """The table's line, whether all is as wanted, and the log's bytes for each visit."""
    back_end = BackEnd(workspace)
    flood = row.kind and start_flood(back_end, row.kind, row.count, 60, row.address,
                                     row.addresses)
    time.sleep(1)
    cpu, written, start = back_end.cpu(), back_end.written(), time.monotonic()
    visits = visit(back_end, HONEST, row.seconds)
    seconds = time.monotonic() - start
    cpu, written = back_end.cpu() - cpu, back_end.written() - written
    peak = back_end.peak_mb()
    made = end_flood(flood, True) if flood else {"opened": 0, "over_tls": 0, "cpu": 0, "seconds": 1}
    back_end.stop()
    lasted = made["seconds"]
    taken, failures, are_in = map(sorted, zip(*(visits or [(seconds, 0, False)])))
    def p99(values):
        return values[min(len(values) - 1, len(values) * 99 // 100)]
    log = max(0.0, written - bytes_a_visit * len(visits)) / seconds / 1000
    faults = [] if all(are_in) and p99(taken) <= IN_TIME_S else ["**kept out**"]
    faults += ["**fails**"] if p99(failures) > FAILURES else []
    faults += ["**log**"] if log > LOG_KB_S and bytes_a_visit else []
    line = (f"| {row.what} | {statistics.median(taken):.2f} / {p99(taken):.2f} / {taken[-1]:.2f} | "
            f"{len(visits)} | {are_in.count(False)} | {p99(failures)} / {failures[-1]} | "
            f"{100 * cpu / seconds:.0f} | {peak:.0f} | {log:.1f} | "
            f"{made['opened'] / lasted:,.0f} | {made['over_tls'] / lasted:,.0f} | "
            f"{100 * made['cpu'] / lasted:.0f} | {', '.join(faults) or 'ok'} |")
    return line, not faults, written / max(1, len(visits))


# ---- the rest: each yields (what, measured, wanted, whether it is so)

def fleet(workspace):
    back_end = BackEnd(workspace)
    end_flood(start_flood(back_end, "fleet", FLEET, 60))
    back_end.stop()
    back_end.start()
    cpu = back_end.cpu()
    made = end_flood(start_flood(back_end, "fleet", FLEET, 60))
    yield fleet_case("after a restart", back_end, cpu, made)
    back_end.stop()
    back_end.start()
    cpu, strangers = back_end.cpu(), start_flood(back_end, "silent", 6000, 60, ELSEWHERE, 6000)
    time.sleep(2)
    made = end_flood(start_flood(back_end, "fleet", FLEET, 20, HONEST))
    yield fleet_case("of one address, 6,000 silent ones of 6,000",
                     back_end, cpu, made)
    end_flood(strangers, True)
    back_end.stop()


def fleet_case(when, back_end, cpu, made):
    return (f"{FLEET:,} devices at once {when}",
            f"{made['accepted']:,} in after {made['seconds']:.1f} s, {made['failures_mean']:.2f} "
            f"failed attempts each, at most {made['failures_most']}; CPU "
            f"{back_end.cpu() - cpu:.1f} s, {back_end.peak_mb():.0f} MB",
            f"all, {FLEET_TIME_S:.0f} s, at most 1",
            made["seconds"] <= FLEET_TIME_S and made["failures_most"] <= 1)


def paused_operator(workspace, cloud):
    """The real daemon, whose link is not drained while one of its sessions is not read."""
    services = {name: listen() for name in ("bulk", "innocent")}
    pair = Pair(workspace, cloud, "paused", {
        name: ("127.0.0.1", one.getsockname()[1]) for name, one in services.items()})
    stalled, innocent = pair.client("bulk"), pair.client("innocent", 1 << 16)
    bulk, quiet = (services[name].accept()[0] for name in ("bulk", "innocent"))
    threading.Thread(target=push, args=(bulk,), daemon=True).start()
    stalled.recv(1 << 16)
    time.sleep(2)
    threading.Thread(target=send_pieces, args=(quiet, 118), daemon=True).start()
    arrived = read_for(innocent, 12)
    innocent.close()
    pair.wait_for_answer(1)
    ended = poll_audit(pair, "bulk", 40)
    whole = poll_audit(pair, "innocent", 5)
    yield ("an operator pauses; 118 bytes of another session",
           f"{arrived} arrive", "118", arrived == 118)
    yield ("its audit lines", f"{ended.get('reason')!r}, whole {ended.get('whole')}; "
           f"the other: whole {whole.get('whole')}", "reason; whole only if so",
           ended.get("whole") is False and (whole.get("whole") is True) == (arrived == 118))
    for one in (stalled, bulk):
        one.close()
    pair.close()


def push(connection):
    try:
        for _ in range(4096):
            connection.sendall(bytes(1 << 16))
    except OSError:
        pass


def send_pieces(connection, size, pieces=11):
    for number in range(pieces):
        connection.sendall(bytes(size // pieces + (number < size % pieces)))
        time.sleep(0.4)
    connection.close()


def read_for(connection, seconds):
    """How many bytes come until the end, or in this time."""
    count, until = 0, time.monotonic() + seconds
    try:
        while (left := until - time.monotonic()) > 0:
            connection.settimeout(left)
            if not (piece := connection.recv(4096)):
                break
            count += len(piece)
    except OSError:
        pass
    return count


def poll_audit(pair, service, seconds):
    """The last audit line of the service's session, {} if there is none in time."""
    def found():
        lines = [json.loads(line) for line in pair.gateway.log_beside("backend").splitlines()
                 if line.startswith("{")]
        return next((line for line in reversed(lines)
                     if line.get("service") == service and "whole" in line), None)
    try:
        return poll(found, seconds, "an audit line")
    except AssertionError:
        return {}


def unread_outputs(workspace):
    for what, stuffed in (("", False), (", full from the start", True)):
        pipes = [os.pipe() for _ in range(2)]
        for _, end in pipes if stuffed else ():
            os.set_blocking(end, False)
            fill(end)
            os.set_blocking(end, True)
        back_end = BackEnd(workspace, stdout=pipes[0][1], stderr=pipes[1][1])
        end_flood(start_flood(back_end, "reset", 32, 1))
        taken, failures, is_in = come_in(back_end, "true-0", HONEST, time.monotonic() + 8)
        ended = back_end.stop(5)
        yield (f"outputs are pipes that nobody reads{what}",
               f"a device is {f'in after {taken:.2f} s' if is_in else 'not in'} ({failures} "
               f"failed), SIGTERM ends it {f'after {ended:.2f} s' if ended < 5 else 'not'}",
               "in within 2 s, ends within 5 s", is_in and taken < IN_TIME_S and ended < 5)
        for end in itertools.chain(*pipes):
            os.close(end)


def fill(descriptor):
    try:
        while True:
            os.write(descriptor, bytes(4096))
    except BlockingIOError:
        pass


def check_rows(found):
    """Prints the second table; its lines, and whether all is as wanted."""
    lines = ["", "| Case | Measured | Wanted | |", "|---|---|---|---|"]
    print("\n".join(lines))
    good = True
    for what, measured, wanted, is_so in found:
        lines.append(f"| {what} | {measured} | {wanted} | {'ok' if is_so else '**no**'} |")
        print(lines[-1], flush=True)
        good = good and is_so
    return lines, good


def main():
    parser = argparse.ArgumentParser(prog="scripts/attack", description=__doc__)
    parser.add_argument("words", nargs="*", help="only the rows that contain one of them")
    parser.add_argument("--long", action="store_true",
                        help="replays after 100 and 299 real seconds")
    documents.add_option(parser)
    arguments = parser.parse_args()
    renewed = not (arguments.print or arguments.words or arguments.long)
    load = os.getloadavg()[0]
    if renewed:
        documents.refuse_under_load("limits.md")

    def is_wanted(what):
        return not arguments.words or any(word in what for word in arguments.words)
    cloud = enter_linked_networks()
    network.command("sysctl", "-qw", "net.ipv4.ip_local_port_range=2048 65000")
    lines, good, bytes_a_visit = FLOOD_HEAD.splitlines(), True, 0
    print(FLOOD_HEAD)
    with Workspace() as workspace:
        for row in FLOODS:
            if row is FLOODS[0] or is_wanted(row.what):
                line, is_good, visit_bytes = run_flood(workspace, row, bytes_a_visit)
                bytes_a_visit, good = bytes_a_visit or visit_bytes, good and is_good
                lines.append(line)
                print(line, flush=True)
        cases = {"fleet": lambda: fleet(workspace),
                 "paused": lambda: paused_operator(workspace, cloud),
                 "outputs": lambda: unread_outputs(workspace),
                 "replay": lambda: replays(workspace, arguments.long)}
        more, is_good = check_rows(itertools.chain.from_iterable(
            case() for name, case in cases.items() if is_wanted(name)))
    text = "\n".join([
        f"Measured on {datetime.date.today()}, Linux {platform.release()}, {os.cpu_count()} cores, "
        f"load {load:.1f} at the start.", "", *lines, *more])
    if renewed:
        documents.replace_section("limits.md", "attacks", text)
    return 0 if good and is_good else 1


if __name__ == "__main__":
    signal.signal(signal.SIGPIPE, signal.SIG_IGN)
    sys.exit(main())
