#!/usr/bin/python3
"""Measures the daemon beside its peers, in alternating rounds, in a network of its own.

Every peer is started once; then each round loads them one after the other, so that what disturbs
the machine disturbs them alike. The result is the median over the rounds.
"""
import argparse
import json
import os
import pathlib
import statistics
import subprocess
import sys
import time

from harness import documents, network
from harness.sandbox import BIN
from harness.workspace import Workspace

import report
from peers import bare_tls, daemon, haproxy, loopback, operator_way, ssh, stunnel
from place import Place

PEERS = {
    "daemon": (daemon.start, 1),
    "daemon-level-2": (daemon.start, 2),
    "socket": (operator_way.start, "socket"),
    "https": (operator_way.start, "https"),
    "ssh": (ssh.start,),
    "ssh-aes128": (ssh.start, "-c", "aes128-gcm@openssh.com"),
    "stunnel": (stunnel.start,),
    "haproxy": (haproxy.start,),
    "loopback": (loopback.start,),
    "tls-aes128": (bare_tls.start, "aes128"),
    "tls-aes256": (bare_tls.start, "aes256"),
}
WINDOW_MS, QUICK_WINDOW_MS = 1000, 300
SETTLE_S, IDLE_S, QUICK_IDLE_S = 2, 12, 2
LOAD_TIMEOUT_S = 120


def status(pid, field):
    """A field of a process that is a number, in kB where it has a unit."""
    text = pathlib.Path(f"/proc/{pid}/status").read_text()
    return int(next(line for line in text.splitlines() if line.startswith(f"{field}:")).split()[1])


def usage(pid):
    """CPU seconds and context switches so far, of all threads."""
    switches = sum(status(f"{pid}/task/{task}", f"{kind}_ctxt_switches")
                   for task in os.listdir(f"/proc/{pid}/task")
                   for kind in ("voluntary", "nonvoluntary"))
    return time.clock_gettime(~pid << 3 | 2), switches  # the clock of another process


def measure_idle(places, seconds):
    time.sleep(SETTLE_S)
    before = {place.name: usage(place.pid) for place in places}
    time.sleep(seconds)
    for place in places:
        cpu, switches = (after - start for after, start
                         in zip(usage(place.pid), before[place.name]))
        place.figures = {"rss_idle": [status(place.pid, "VmRSS") / 1000],
                         "idle_cpu": [100 * cpu / seconds],
                         "idle_switches": [switches / seconds]}


def load(place, window_ms):
    """One round of one peer."""
    command = [BIN / "bench_load", *place.load, window_ms]
    done = subprocess.run(list(map(str, command)), capture_output=True, text=True, check=False,
                          timeout=LOAD_TIMEOUT_S)
    if done.returncode != 0:
        raise SystemExit(f"{place.name}: {done.stderr.strip()}")
    for line in done.stdout.splitlines():
        name, value = line.split()
        place.figures.setdefault(name, []).append(float(value))


def start_peers(names, workspace):
    for name in names:
        place = Place(workspace.directory, name, workspace.certificates)
        start, *arguments = PEERS[name]
        place.load, place.figures = None, {}
        place.pid, far = start(place, *arguments)
        place.load = place.load or ("way", place.service, place.operator, place.pid, far)
        yield place


def measure(options, workspace):
    places = list(start_peers(options.peers, workspace))
    with_process = [place for place in places if place.pid]
    print("peers are up; looking at them idle", file=sys.stderr)
    measure_idle(with_process, QUICK_IDLE_S if options.quick else IDLE_S)
    loads = []
    for number in range(options.rounds):
        print(f"round {number + 1} of {options.rounds}", file=sys.stderr)
        loads.append(os.getloadavg()[0])
        shift = number % len(places)
        for place in places[shift:] + places[:shift]:
            load(place, QUICK_WINDOW_MS if options.quick else WINDOW_MS)
    for place in with_process:
        place.figures["rss_peak"] = [status(place.pid, "VmHWM") / 1000]
    medians = {place.name: {name: statistics.median(values)
                            for name, values in place.figures.items()} for place in places}
    return {"machine": report.describe_machine(), "rounds": options.rounds, "load": loads,
            "peers": medians, "samples": {place.name: place.figures for place in places}}


def measure_micro(quick):
    done = subprocess.run([BIN / "bench_micro", "--benchmark_format=json",
                           f"--benchmark_min_time={0.02 if quick else 0.3}"],
                          capture_output=True, text=True, check=True)
    return [{key: row[key] for key in ("name", "cpu_time", "bytes_per_second") if key in row}
            for row in json.loads(done.stdout)["benchmarks"]]


def parse_options():
    parser = argparse.ArgumentParser(prog="scripts/bench", description=__doc__.split("\n", 1)[0])
    parser.add_argument("--rounds", type=int, metavar="N", help="how often (5; with --quick 1)")
    parser.add_argument("--json", type=pathlib.Path, metavar="FILE", help="all samples go there")
    parser.add_argument("--quick", action="store_true", help="short windows, rough figures")
    parser.add_argument("--peers", default=",".join(PEERS), metavar="NAME,...",
                        help=f"only these of {', '.join(PEERS)}")
    documents.add_option(parser)
    options = parser.parse_args()
    options.peers = options.peers.split(",")
    if not set(options.peers) <= set(PEERS):
        parser.error(f"the peers are {', '.join(PEERS)}")
    options.rounds = options.rounds or (1 if options.quick else 5)
    return options


def main():
    options = parse_options()
    renewed = not (options.quick or options.print) and options.peers == list(PEERS)
    if renewed:
        documents.refuse_under_load("performance.md")
    network.enter_private_network()
    with Workspace() as workspace:
        result = measure(options, workspace)  # what it started ends with this process
    result["micro"] = measure_micro(options.quick)
    if options.json:
        options.json.write_text(json.dumps(result, indent=1))
    print(report.text(result))
    if renewed:
        documents.replace_section("performance.md", "figures", report.markdown(result))


if __name__ == "__main__":
    main()
