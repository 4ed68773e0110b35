"""Waiting for something to become true, with a deadline instead of a sleep."""
import os
import time

# Instrumented builds are slower: every time-out below is multiplied by this.
SCALE = float(os.environ.get("RA_TIME_SCALE", "1"))


def poll(probe, seconds, what):
    """Return the first true result of probe(); fail with `what` (a text or a function) after it."""
    deadline = time.monotonic() + seconds * SCALE
    while True:
        result = probe()
        if result:
            return result
        if time.monotonic() > deadline:
            raise AssertionError(f"not within {seconds * SCALE:g} s: {what() if callable(what) else what}")
        time.sleep(0.002)
