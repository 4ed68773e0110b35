"""The gateway of a cell, with a supervisor that starts the daemon again whenever it has ended."""
import pathlib
import threading
import time
from dataclasses import dataclass

from harness.sandbox import NAME, Gateway

RESTART_AFTER_S = 5  # the pause that a supervisor makes
FAKETIME = next(iter(sorted(pathlib.Path("/usr/lib").glob("*/faketime/libfaketime.so.1"))), None)


@dataclass
class Event:
    """A line of the daemon's log, or (level "-") its end. `at` is when it was seen, on this
    process's monotonic clock: the daemon's own clock may be what is at fault."""
    at: float
    level: str
    text: str


class Edge(Gateway):
    """`events` is what the daemon's runs have logged so far."""

    def __init__(self, directory, faked_clock, **options):
        super().__init__(directory, "gw", ends=[1], **options)
        self.put("tmp/clock", "+0")
        self._faked_clock, self.events, self.runs = faked_clock, [], []
        self.lag = 0.0  # for how long at most the machine left this process waiting
        self._watch = threading.Thread(target=self._follow, daemon=True)
        self._stopping, self._parked = threading.Event(), threading.Event()

    def sandbox(self):
        clock = {"LD_PRELOAD": FAKETIME, "FAKETIME_TIMESTAMP_FILE": "/tmp/clock",
                 "FAKETIME_NO_CACHE": "1", "FAKETIME_DONT_FAKE_MONOTONIC": "1",
                 "FAKETIME_DONT_RESET": "1"} if self._faked_clock else {}
        return super().sandbox() + [word for name, value in clock.items()
                                    for word in ("--setenv", name, value)]

    def step_clock(self, seconds):
        fresh = self.root / "tmp/clock.new"
        fresh.write_text(f"{seconds:+d}")
        fresh.rename(self.root / "tmp/clock")

    def start_daemon(self):
        self.daemon = self.spawn(f"-{len(self.runs)}")
        self.runs.append(self.daemon)
        self.daemon.find_pid()
        if not self._watch.is_alive():
            self._watch.start()

    def _follow(self):
        seen, restart_at, last = 0, None, time.monotonic()
        while not self._stopping.is_set():
            lines = self.daemon.log.lines
            ended = self.daemon.status is not None and len(lines) == seen
            now = time.monotonic()
            self.lag, last = max(self.lag, now - last), now
            self.events += [Event(now, line.level, line.text) for line in lines[seen:]]
            seen = len(lines)
            if ended and restart_at is None:
                self.events.append(Event(now, "-", f"status {self.daemon.status}"))
                restart_at = now + RESTART_AFTER_S
            if ended and now >= restart_at:
                seen, restart_at = 0, None
                self.start_daemon()
                last = time.monotonic()
            time.sleep(0.01)
        self._parked.set()
        threading.Event().wait()  # the daemon that it started would end with it

    def stop(self):
        """End everything; what went wrong while it ran, also in runs that have ended."""
        self._stopping.set()
        if self.runs:
            self._parked.wait()
        return super().stop() + [f"not a log line: {text}" for run in self.runs[:-1]
                                 for text in run.log.strays]

    def sessions(self):
        """The open sessions by the bus method; None when the bus does not answer."""
        status, text = self.call(NAME, f"{NAME}.queryAllSessionInfo", timeout_ms=500)
        return text.count("sessionId") if status == 0 else None
