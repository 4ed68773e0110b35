"""Waiting with a deadline, and one asyncio thread for every server of the tests."""
import asyncio
import os
import threading
import time

# Instrumented builds are slower: every time-out below is multiplied by this.
SCALE = float(os.environ.get("RA_TIME_SCALE", "1"))
LOOP = asyncio.new_event_loop()
_thread = threading.Thread(target=LOOP.run_forever, daemon=True)


def poll(probe, seconds, what):
    """Return the first true result of probe(); fail with `what` (a text or a function) after it."""
    deadline = time.monotonic() + seconds * SCALE
    while not (result := probe()):
        if time.monotonic() > deadline:
            what = what() if callable(what) else what
            raise AssertionError(f"not within {seconds * SCALE:g} s: {what}")
        time.sleep(0.002)
    return result


def run(coroutine):
    """The coroutine's result, from the asyncio thread."""
    if not _thread.is_alive():
        _thread.start()
    return asyncio.run_coroutine_threadsafe(coroutine, LOOP).result(60)
