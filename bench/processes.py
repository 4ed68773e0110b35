"""What the system knows of a process: memory, CPU time, switches, processors."""
import os
import pathlib
import re
import time


def status(pid, field):
    """A field of a process that is a number, in kB where it has a unit."""
    text = pathlib.Path(f"/proc/{pid}/status").read_text()
    return int(next(line for line in text.splitlines() if line.startswith(f"{field}:")).split()[1])


def threads(pid):
    return [int(task) for task in os.listdir(f"/proc/{pid}/task")]


def switches(pid, kind):
    """Of all threads that are there; the kind is voluntary (it waited) or nonvoluntary."""
    return sum(status(f"{pid}/task/{task}", f"{kind}_ctxt_switches") for task in threads(pid))


def cpu_seconds(pid):
    return time.clock_gettime(~pid << 3 | 2)  # the clock of another process


def with_children(pid):
    """The process and all that descend from it."""
    text = pathlib.Path(f"/proc/{pid}/task/{pid}/children").read_text()
    return [pid, *(found for child in text.split() for found in with_children(int(child)))]


def run_on(pids, processors):
    """From now on, with all their threads."""
    for pid in pids:
        for task in threads(pid):
            os.sched_setaffinity(task, processors)


def wakeups(pid):
    """Of all threads; None where the kernel does not count them."""
    texts = [pathlib.Path(f"/proc/{pid}/task/{task}/sched").read_text() for task in threads(pid)]
    found = [re.search(r"nr_wakeups\s*:\s*(\d+)", text) for text in texts]
    return None if None in found else sum(int(match[1]) for match in found)
