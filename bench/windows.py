"""One short window of load on one peer, and pairs of them."""
import os
import subprocess
from contextlib import contextmanager

from harness.sandbox import BIN

from processes import run_on

LOAD_TIMEOUT_S = 60
BARE_KINDS = ("down1", "up1")


def can_carry(place, kind, cost="usual"):
    """A bare connection has one session, and no load whose cost could change."""
    return not place.bare or kind in BARE_KINDS and cost == "usual"


def run_window(place, kind, window_ms, cost="usual", processor=-1):
    """The figures of one window, by name."""
    load = (["tls", kind, window_ms, processor, *place.bare] if place.bare else
            ["way", kind, window_ms, cost, place.service, place.operator,
             *(",".join(map(str, pids)) or 0 for pids in (place.gateway, place.far))])
    wrapper = place.wrapper if place.bare else ()
    done = subprocess.run([*wrapper, BIN / "bench_load", *map(str, load)], capture_output=True,
                          text=True, check=False, timeout=LOAD_TIMEOUT_S)
    if done.returncode != 0:
        raise SystemExit(f"{place.name}, {kind}: {done.stderr.strip()}")
    return {name: float(value) for name, value in map(str.split, done.stdout.splitlines())}


def run_pair(subject, peer, peer_first, *window):
    """One window of each, directly after one another."""
    order = (peer, subject) if peer_first else (subject, peer)
    figures = {place: run_window(place, *window) for place in order}
    return figures[subject], figures[peer]


@contextmanager
def gateways_on_one_core(places):
    """The peers' processes on the gateway have the last processor for themselves, and all others
    of the run the rest. Gives that processor."""
    everywhere = os.sched_getaffinity(0)
    core = max(everywhere)
    rest = everywhere - {core} or everywhere
    for place in places:
        run_on(place.gateway, {core})
        run_on(place.far, rest)
    os.sched_setaffinity(0, rest)  # what it starts gets the same
    try:
        yield core
    finally:
        os.sched_setaffinity(0, everywhere)
        for place in places:
            run_on([*place.gateway, *place.far], everywhere)
