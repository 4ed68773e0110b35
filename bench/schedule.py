"""Which windows a run has, and the run itself: for each peer and kind of window the daemon, the
peer, the peer, the daemon, the daemon ...

Every round has one pair of each, so that what disturbs the machine for a while disturbs all alike.
"""
import os
import sys
from contextlib import nullcontext

from figures import FIGURES, SETS, is_asked
from windows import can_carry, gateways_on_one_core, run_pair

FEW = 6  # pairs where nothing is asked


def plan(set_name, subject, peers, options):
    """(peer, kind, pairs) of one set."""
    conditions = SETS[set_name]
    for peer in peers:
        for kind in conditions.kinds:
            wanted = any(FIGURES[row].kind == kind for row in options.rows)
            asked = is_asked(peer.name, kind) or peer.name in options.full
            if peer is subject or not wanted or not can_carry(peer, kind, conditions.cost):
                continue
            if asked or not conditions.only_asked and not options.quick:
                yield peer, kind, options.pairs if asked else min(FEW, options.pairs)


class Samples:
    """pairs[set][peer][figure] are [subject, peer]; own[set][figure] the subject's of all windows.
    """

    def __init__(self):
        self.pairs, self.own, self.load = {}, {}, []

    def add(self, set_name, peer, subject_figures, peer_figures):
        by_figure = self.pairs.setdefault(set_name, {}).setdefault(peer.name, {})
        for name, value in subject_figures.items():
            self.own.setdefault(set_name, {}).setdefault(name, []).append(value)
        for name in subject_figures.keys() & peer_figures.keys():
            by_figure.setdefault(name, []).append([subject_figures[name], peer_figures[name]])


def run_set(set_name, subject, peers, options, samples):
    conditions, windows = SETS[set_name], list(plan(set_name, subject, peers, options))
    pinned = gateways_on_one_core([subject, *peers]) if conditions.one_core else nullcontext(-1)
    with pinned as processor:
        for number in range(max((pairs for *_, pairs in windows), default=0)):
            print(f"{conditions.title}: round {number + 1}", file=sys.stderr)
            samples.load.append(os.getloadavg()[0])
            for peer, kind, pairs in windows:
                if number < pairs:
                    samples.add(set_name, peer, *run_pair(
                        subject, peer, number % 2, kind, options.window_ms, conditions.cost,
                        processor))
