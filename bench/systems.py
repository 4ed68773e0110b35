#!/usr/bin/python3
"""Compares the same programs with the libraries of two systems: this one, and a root with another
Debian. The daemon and the back end are the same files; OpenSSH is each system's own."""
import argparse
import json
import pathlib
import statistics
import subprocess
import sys

from harness import documents, network
from harness.sandbox import BIN
from harness.workspace import Workspace

import report
from figures import FIGURES
from intervals import median_interval, verdict
from peers import bare_tls, daemon, ssh
from place import IN_SYSTEM, Place
from windows import can_carry, run_pair

PEERS = {"daemon": (daemon.start, 1), "ssh-aes128": (ssh.start, "-c", "aes128-gcm@openssh.com"),
         "tls-aes128": (bare_tls.start, "aes128")}
KINDS = ("down1", "up1", "down8", "up8")
SHOWN = ("cpu", "mbs")
PAIRS, WINDOW_MS = 15, 250


def start_peers(workspace, system, label):
    places = {}
    for name, (start, *arguments) in PEERS.items():
        place = Place(workspace.directory, f"{name}-{label}", workspace.certificates, system)
        place.gateway, place.far = start(place, *arguments)
        places[name] = place
    return places


def measure(options, workspace):
    """[one, other] of each figure, by what is compared."""
    here = start_peers(workspace, "", "here")
    there = start_peers(workspace, str(options.root), "there")
    compared = [(f"{name}: there / here", there[name], here[name]) for name in PEERS]
    compared += [(f"{where}: daemon / {name}", places["daemon"], places[name])
                 for where, places in (("here", here), ("there", there))
                 for name in PEERS if name != "daemon"]
    samples = {label: {} for label, *_ in compared}
    for number in range(options.pairs):
        print(f"round {number + 1}", file=sys.stderr)
        for label, one, other in compared:
            for kind in options.kinds:
                if can_carry(one, kind) and can_carry(other, kind):
                    pair = run_pair(one, other, number % 2, kind, WINDOW_MS)
                    for name in pair[0].keys() & pair[1].keys():
                        samples[label].setdefault(name, []).append([of[name] for of in pair])
    return samples


def grid(samples):
    yield ["", *samples]
    for key in (f"{name}_{kind}" for kind in KINDS for name in SHOWN):
        cells = []
        for found in samples.values():
            if key not in found:
                cells.append("-")
                continue
            one, other = (statistics.median(values) for values in zip(*found[key]))
            interval = median_interval([a / b for a, b in found[key]])
            word = {"met": " better", "not met": " worse"}.get(
                verdict(interval, 1, FIGURES[key].better), "")
            cells.append(f"{report.figure(one)} / {report.figure(other)}: "
                         f"{report.with_ends(interval)}{word}")
        if any(cell != "-" for cell in cells):
            yield [FIGURES[key].label, *cells]


def crypto(system=None):
    wrapper = (*IN_SYSTEM, system) if system else ()
    return subprocess.run([*wrapper, BIN / "bench_crypto"], capture_output=True, text=True,
                          check=True).stdout


def markdown(cryptography, rows):
    return "\n".join([*(f"```\n{text}```\n" for text in cryptography),
                      report.markdown_table(rows)])


def main():
    parser = argparse.ArgumentParser(prog="scripts/bench --root DIR", description=__doc__)
    parser.add_argument("root", type=pathlib.Path, metavar="DIR", help="the other system")
    parser.add_argument("--pairs", type=int, default=PAIRS, metavar="N")
    parser.add_argument("--kinds", type=lambda text: text.split(","), default=KINDS,
                        metavar="NAME,...", help=f"only these of {', '.join(KINDS)}")
    parser.add_argument("--json", type=pathlib.Path, metavar="FILE", help="all samples go there")
    documents.add_option(parser)
    options = parser.parse_args()
    cryptography = [crypto(), crypto(options.root)]
    network.enter_private_network()
    with Workspace() as workspace:
        samples = measure(options, workspace)
    if options.json:
        options.json.write_text(json.dumps({"samples": samples, "crypto": cryptography}))
    rows = list(grid(samples))
    print("\n".join([*cryptography, report.plain(rows)]))
    if not options.print:
        documents.replace_section("performance.md", "systems", markdown(cryptography, rows))


if __name__ == "__main__":
    main()
