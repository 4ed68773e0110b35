"""What explains a figure: system calls, context switches, wake-ups, instructions and cycles of the
gateway's processes for each MB carried.

System calls are counted by `strace -c`, which stops the process at each of them and so slows it
down: in windows of their own, whose times count nowhere. A slower process finds more waiting at
each call, so the count is rather too low than too high. Instructions and cycles come from
`perf stat`, where the processor's counters can be had; else they are missing.
"""
import os
import re
import signal
import statistics
import subprocess

from figures import BULK
from harness.waiting import poll

from processes import status, switches, threads, wakeups
from windows import run_window

WINDOWS = 3  # for each count that disturbs nothing
WINDOW_MS = 250
CALLS_NAMED = 4  # the most frequent ones
EVENTS = ("instructions", "cycles")


def _moved(figures, kind):
    return figures[f"moved_{kind}"] / 1e6


def _switches(place, kind):
    """Per MB, median of some windows."""
    def now():
        found = {name: sum(switches(pid, name) for pid in place.gateway)
                 for name in ("voluntary", "nonvoluntary")}
        counts = [wakeups(pid) for pid in place.gateway]
        return found | ({} if None in counts else {"wakeups": sum(counts)})

    samples = {}
    for _ in range(WINDOWS):
        before = now()
        moved = _moved(run_window(place, kind, WINDOW_MS), kind)
        for name, count in now().items():
            samples.setdefault(name, []).append((count - before[name]) / moved)
    return {name: statistics.median(values) for name, values in samples.items()}


def _watched(command, ready, place, kind):
    """Runs a window beside a program that watches; the MB carried and what the program printed."""
    with subprocess.Popen(list(map(str, command)), stderr=subprocess.PIPE, text=True) as program:
        poll(lambda: ready() or program.poll() is not None, 10, f"{command[0]} attached")
        moved = _moved(run_window(place, kind, WINDOW_MS), kind)
        program.send_signal(signal.SIGINT)
        return moved, program.communicate(timeout=20)[1]


def _calls(place, kind):
    """All system calls per MB, and the most frequent ones by name."""
    pids = [part for pid in place.gateway for part in ("-p", pid)]

    def traced():
        return all(status(f"{pid}/task/{task}", "TracerPid") for pid in place.gateway
                   for task in threads(pid))
    moved, text = _watched(["strace", "-q", "-c", "-f", "-U", "calls,name", *pids], traced, place,
                           kind)
    counts = {name: int(count) / moved
              for count, name in re.findall(r"^\s*(\d+)\s+(\w+)$", text, re.MULTILINE)}
    total = counts.pop("total", None)
    if not total:
        return {}
    named = sorted(counts.items(), key=lambda item: -item[1])[:CALLS_NAMED]
    return {"calls": total, "by_name": dict(named)}


def _events(place, kind):
    """Per byte; nothing where the machine does not count them."""
    pids = ",".join(map(str, place.gateway))
    try:
        moved, text = _watched(["perf", "stat", "-x", ";", "-e", ",".join(EVENTS), "-p", pids],
                               _after(0.3), place, kind)
    except FileNotFoundError:
        return {}
    found = re.findall(r"^(\d+);[^;]*;(\w+)", text, re.MULTILINE)
    return {name: int(count) / moved / 1e6 for count, name in found if name in EVENTS}


def _after(seconds):
    """perf does not show when it has attached."""
    end = os.times().elapsed + seconds
    return lambda: os.times().elapsed > end


def count(places):
    """By peer and kind of window."""
    return {place.name: {kind: _switches(place, kind) | _calls(place, kind) | _events(place, kind)
                         for kind in BULK} for place in places}
