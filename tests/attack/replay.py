"""A handshake that somebody has read, presented again: is the true device displaced by it?"""
import pathlib
import re
import time
from dataclasses import dataclass

from ends import ELSEWHERE, HONEST, BackEnd, handshake, open_channel, shake_hands

FAKETIME = next(iter(sorted(pathlib.Path("/usr/lib").glob("*/faketime/libfaketime.so.1"))), None)
CLOCK_AHEAD_S = 290


@dataclass
class Case:
    """A replay so many seconds after the true device has come in."""
    after: float
    address: str
    what: str = ""
    header_ahead: int = 0  # of the replay; the signature remains
    clock_ahead: int = 0   # of the true device
    gone: bool = False     # the true device has left
    wanted: str = "refused"

    def __str__(self):
        place = "the same" if self.address == HONEST else "another"
        return f"replay after {self.after:g} s from {place} address{self.what}"


CASES = [
    Case(0.3, HONEST, ", the device itself coming back", gone=True, wanted="accepted"),
    Case(1, ELSEWHERE), Case(3, HONEST), Case(3, ELSEWHERE),
    Case(3, ELSEWHERE, ", the header's time one second later", header_ahead=1),
    Case(3, HONEST, ", the device gone", gone=True),
    Case(100, HONEST), Case(100, ELSEWHERE, ", the device gone", gone=True), Case(299, HONEST),
    Case(299, ELSEWHERE, ", the device gone", gone=True),
    Case(CLOCK_AHEAD_S + 299, ELSEWHERE, f", the device's clock {CLOCK_AHEAD_S} s ahead",
         clock_ahead=CLOCK_AHEAD_S)]
AFTER_RESTART = [Case(3, HONEST, ", the back end restarted", gone=True),
                 Case(3, ELSEWHERE, ", the back end restarted", gone=True)]


def is_displaced(channel):
    channel.settimeout(0.3)
    try:
        channel.recv(4096)  # a close frame, or the end
    except TimeoutError:
        return False
    except OSError:
        pass
    return True


class Victim:
    """A true device that has come in, and what was read of it."""

    def __init__(self, back_end, name, case):
        self.case = case
        self.message = handshake(name, int(time.time()) + case.clock_ahead)
        self.channel = open_channel(back_end, HONEST)
        code = shake_hands(self.channel, self.message)
        assert code == 0, f"{name} was refused: {code}"
        if case.gone:
            self.channel.close()

    def replay(self, back_end):
        message = re.sub(rb'"timestamp":(\d+)', lambda found: b'"timestamp":%d' % (
            int(found[1]) + self.case.header_ahead), self.message)
        try:
            with open_channel(back_end, self.case.address) as channel:
                code = shake_hands(channel, message)
                displaced = not self.case.gone and is_displaced(self.channel)
        except OSError as error:
            code, displaced = f"none: {error}", False
        result = "accepted" if code == 0 else "refused"
        yield (str(self.case), f"{result} (code {code})" + (", displaced" if displaced else ""),
               self.case.wanted, result == self.case.wanted and not displaced)


def replays(workspace, in_real_time):
    """The long ones with a back end whose clock is set ahead, unless they are waited for."""
    clock = workspace.directory / "clock"
    clock.write_text("+0")
    back_end = BackEnd(workspace, environment={} if in_real_time else {
        "LD_PRELOAD": str(FAKETIME), "FAKETIME_TIMESTAMP_FILE": str(clock),
        "FAKETIME_NO_CACHE": "1", "FAKETIME_DONT_FAKE_MONOTONIC": "1", "FAKETIME_DONT_RESET": "1"})
    start, real_until = time.monotonic(), float("inf") if in_real_time else 10
    victims = [Victim(back_end, f"true-{n}", case) for n, case in enumerate(CASES)]
    for victim in victims:
        if victim.case.after <= real_until:
            time.sleep(max(0.0, start + victim.case.after - time.monotonic()))
        else:
            ahead = int(victim.case.after - (time.monotonic() - start))
            clock.with_suffix(".new").write_text(f"+{ahead}")
            clock.with_suffix(".new").replace(clock)
        yield from victim.replay(back_end)
    back_end.stop()
    clock.write_text("+0")
    back_end.start()
    start = time.monotonic()
    victims = [Victim(back_end, f"true-{50 + n}", case) for n, case in enumerate(AFTER_RESTART)]
    back_end.stop()
    back_end.start()
    time.sleep(max(0.0, start + 3 - time.monotonic()))
    for victim in victims:
        yield from victim.replay(back_end)
    back_end.stop()
