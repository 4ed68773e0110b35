"""What a daemon holds (memory, descriptors, threads), and what it allocates."""
import os
import re
import struct
from dataclasses import dataclass

from .sandbox import BIN, INSTALLED, PROGRAM

INSTRUMENTED = re.search(rb"__[at]san_init", (BIN / "remote_access_daemon").read_bytes())


@dataclass
class Footprint:
    own_kb: int  # memory that no file backs: a file's pages come and go with their use
    descriptors: int
    threads: int
    blocks: int  # of the heap, that have not been freed; 0 unless the daemon was started COUNTED


def _counters(gateway):
    counted = gateway.root / "tmp/malloc_count"
    return struct.unpack("3Qq", counted.read_bytes()) if counted.exists() else (0,) * 4


def held_by(pid, blocks=0):
    process = f"/proc/{pid}"
    with open(f"{process}/smaps_rollup", encoding="ascii") as rollup:
        own_kb = int(re.search(r"^Anonymous:\s+(\d+) kB", rollup.read(), re.MULTILINE)[1])
    return Footprint(own_kb, len(os.listdir(f"{process}/fd")),
                     len(os.listdir(f"{process}/task")), blocks)


def footprint(gateway):
    return held_by(gateway.daemon.pid, _counters(gateway)[3])


# Options of a Gateway whose daemon counts its allocations.
COUNTED = {"command": ("/usr/bin/env", f"LD_PRELOAD=/{INSTALLED}/bin/libmalloc_count.so",
                       "MALLOC_COUNT=/tmp/malloc_count", PROGRAM)}


@dataclass
class Allocations:
    """Calls of malloc and related functions so far, by caller."""
    openssl: int
    program: int
    others: int

    def __sub__(self, before):
        return Allocations(self.openssl - before.openssl, self.program - before.program,
                           self.others - before.others)


def allocations(gateway):
    return Allocations(*_counters(gateway)[:3])
