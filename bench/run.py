#!/usr/bin/python3
"""Measures the daemon beside its peers, in pairs of short windows, in a network of its own.

Every peer is started once. Each figure of a peer is compared with the daemon's of the window
directly before or after, and the result is the median of these ratios with its interval: what
disturbs the machine disturbs both, and how sure a ratio is shows in the interval.
"""
import argparse
import json
import pathlib
import subprocess
import sys
import time

from harness import documents, network
from harness.sandbox import BIN
from harness.workspace import Workspace

import machine
import report
import results
from counts import count
from figures import FIGURES, SETS, SUBJECT
from peers import bare_tls, daemon, haproxy, loopback, operator_way, ssh, stunnel
from place import Place
from processes import cpu_seconds, status, switches
from schedule import Samples, run_set

PEERS = {
    SUBJECT: (daemon.start, 1),
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
OLD = "old"  # the peer of --against
# What is counted, if it runs: whose threads last, so that their switches can be read afterwards.
COUNTED = (SUBJECT, "daemon-level-2", OLD, "ssh", "ssh-aes128")
QUICK_PEERS = ("ssh-aes128", "stunnel", "tls-aes128")
PAIRS, QUICK_PAIRS = 15, 6
WINDOW_MS, QUICK_WINDOW_MS = 250, 150
SETTLE_S, IDLE_S, QUICK_IDLE_S = 2, 12, 2


def measure_idle(places, seconds):
    """By peer and figure."""
    def usage(place):
        pid = place.gateway[0]
        return cpu_seconds(pid), sum(switches(pid, kind) for kind in ("voluntary", "nonvoluntary"))

    time.sleep(SETTLE_S)
    before = {place: usage(place) for place in places}
    time.sleep(seconds)
    figures = {}
    for place in places:
        cpu, count = (after - start for after, start in zip(usage(place), before[place]))
        figures[place.name] = {"rss_idle": status(place.gateway[0], "VmRSS") / 1000,
                               "idle_cpu": 100 * cpu / seconds, "idle_switches": count / seconds}
    return figures


def start_peers(options, workspace):
    for name in [SUBJECT, *options.peers]:
        place = Place(workspace.directory, name, workspace.certificates)
        if name == OLD:
            place.gateway, place.far = daemon.start(place, 1, binaries=options.against / "bin")
        else:
            start, *arguments = PEERS[name]
            place.gateway, place.far = start(place, *arguments)
        yield place


def measure(options, workspace):
    places = list(start_peers(options, workspace))
    subject, *peers = places
    result = {"machine": machine.describe(), "pairs": options.pairs,
              "window_ms": options.window_ms, "idle": {}, "counts": {}}
    with_process = [place for place in places if place.gateway]
    if any(FIGURES[row].kind is None for row in options.rows):
        print("peers are up; looking at them idle", file=sys.stderr)
        result["idle"] = measure_idle(with_process, QUICK_IDLE_S if options.quick else IDLE_S)
    samples = Samples()
    for set_name in options.sets:
        run_set(set_name, subject, peers, options, samples)
    if options.counts:
        print("counting", file=sys.stderr)
        result["counts"] = count([place for place in with_process
                                  if place.name in COUNTED])
    for name, figures in result["idle"].items():
        pid = next(place.gateway[0] for place in places if place.name == name)
        figures["rss_peak"] = status(pid, "VmHWM") / 1000
    return result | {"sets": samples.pairs, "own": samples.own, "load": samples.load}


def measure_micro(quick):
    done = subprocess.run([BIN / "bench_micro", "--benchmark_format=json",
                           "--benchmark_enable_random_interleaving",
                           f"--benchmark_repetitions={6 if quick else 9}",
                           f"--benchmark_min_time={0.01 if quick else 0.05}"],
                          capture_output=True, text=True, check=True)
    samples = {}
    for row in json.loads(done.stdout)["benchmarks"]:
        if row["run_type"] == "iteration":
            found = samples.setdefault(row["run_name"], {"ns": []})
            found["ns"].append(row["cpu_time"])
            if "bytes_per_second" in row:
                found["gbs"] = row["bytes_per_second"] / 1e9
    return dict(sorted(samples.items()))


def names_of(known):
    def split(text):
        names = text.split(",")
        if unknown := set(names) - set(known):
            raise argparse.ArgumentTypeError(f"unknown: {', '.join(unknown)}; "
                                             f"known: {', '.join(known)}")
        return names
    return split


def parse_options():
    parser = argparse.ArgumentParser(prog="scripts/bench", description=__doc__.split("\n", 1)[0])
    peers = [name for name in PEERS if name != SUBJECT]
    parser.add_argument("--pairs", type=int, metavar="N",
                        help=f"of windows for each row ({PAIRS}; with --quick {QUICK_PAIRS})")
    parser.add_argument("--window", type=int, metavar="MS", dest="window_ms",
                        help=f"length of each ({WINDOW_MS}; with --quick {QUICK_WINDOW_MS})")
    parser.add_argument("--json", type=pathlib.Path, metavar="FILE", help="all samples go there")
    parser.add_argument("--quick", action="store_true", help="a minute, rough figures")
    parser.add_argument("--peers", type=names_of(peers), metavar="NAME,...",
                        help=f"only these of {', '.join(peers)}")
    parser.add_argument("--rows", type=names_of(FIGURES), metavar="NAME,...",
                        help=f"only these of {', '.join(FIGURES)}")
    parser.add_argument("--sets", type=names_of(SETS), metavar="NAME,...",
                        help=f"only these of {', '.join(SETS)}")
    parser.add_argument("--against", type=pathlib.Path, metavar="BUILD_DIR",
                        help="compare with the daemon and the back end of another build")
    parser.add_argument("--counts", action="store_true",
                        help="count only: system calls, switches, instructions for each MB")
    parser.add_argument("--machine", metavar="NAME",
                        help="keep the result as docs/performance/NAME.json and renew the table of "
                        "machines, but not this document's own figures")
    parser.add_argument("--include", type=pathlib.Path, nargs="+", metavar="FILE",
                        help="measure nothing: keep these files of --json in docs/performance/ and "
                        "renew the table of machines")
    documents.add_option(parser)
    options = parser.parse_args()
    options.whole = not (options.quick or options.peers or options.rows or options.sets
                         or options.against or options.counts)
    # What is named gets as many pairs as what something is asked of.
    options.full = [*(options.peers or ()), *([OLD] if options.against else ())]
    options.peers = (options.full if options.full else
                     list(QUICK_PEERS) if options.quick else peers)
    options.sets = options.sets or ([] if options.counts else list(SETS) if options.whole else
                                    ["usual"])
    options.micro = options.whole or options.quick
    options.rows = options.rows or ([] if options.counts else list(FIGURES))
    options.counts = options.counts or options.whole
    options.pairs = options.pairs or (QUICK_PAIRS if options.quick else PAIRS)
    options.window_ms = options.window_ms or (QUICK_WINDOW_MS if options.quick else WINDOW_MS)
    return options


def renew(options, result):
    results.keep(options.machine or results.name_of(result["machine"]), result)
    if not options.machine:
        documents.replace_section("performance.md", "figures", report.markdown(result))
    documents.replace_section("performance.md", "machines", results.markdown())


def include(files):
    for path in files:
        results.include(path)
    documents.replace_section("performance.md", "machines", results.markdown())


def main():
    options = parse_options()
    if options.include:
        try:
            return include(options.include)
        except results.BadResult as error:
            raise SystemExit(f"{error}") from error
    renewed = options.whole and not options.print
    if renewed:
        documents.refuse_under_load("performance.md")
    network.enter_private_network()
    with Workspace() as workspace:
        result = measure(options, workspace)  # what it started ends with this process
    result["micro"] = measure_micro(options.quick) if options.micro else {}
    if options.json:
        options.json.write_text(json.dumps(result))
    print(report.text(result, options.rows))
    if renewed:
        renew(options, result)
    return None


if __name__ == "__main__":
    main()
