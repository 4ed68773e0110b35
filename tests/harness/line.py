"""A bad line between two network namespaces: rate, delay, jitter, loss, reordering, queue, cuts.

tests/line has the program that is the line; its --help has what it can be told.
"""
import subprocess

from . import network
from .sandbox import BIN

GATEWAY_ADDRESS, CLOUD_ADDRESS = "10.89.0.1", "10.89.0.2"


class Line:
    """From this process's namespace ("up" starts here) to the other one; it ends with close(), or
    with this process. The same seed draws the same losses for the same packets. TCP over it has
    this congestion control, whatever the machine's own is."""

    def __init__(self, cloud, congestion="cubic", seed=1, **settings):
        self._process = subprocess.Popen(
            ["setpriv", "--pdeathsig", "KILL", BIN / "line_emulator", "uplink", cloud.path,
             "downlink", str(seed)], stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        self._answer("line_emulator")
        self.set(**settings)
        _set_up("uplink", GATEWAY_ADDRESS, CLOUD_ADDRESS, congestion)
        with cloud:
            _set_up("downlink", CLOUD_ADDRESS, GATEWAY_ADDRESS, congestion)

    def _answer(self, command):
        answer = self._process.stdout.readline().split()
        if answer[:1] != ["ok"]:
            raise RuntimeError(f"{command}: {' '.join(answer) or 'no answer'}")
        return answer[1:]

    def tell(self, command):
        """Returns when it is in effect."""
        self._process.stdin.write(f"{command}\n")
        self._process.stdin.flush()
        return self._answer(command)

    def set(self, way="both", **settings):
        if settings:
            self.tell(" ".join([way, *(f"{key} {value}" for key, value in settings.items())]))

    def counts(self):
        """{way: {what: packets}}"""
        words = self.tell("count")
        half = len(words) // 2
        return {part[0]: {key: int(value) for key, value in zip(part[1::2], part[2::2])}
                for part in (words[:half], words[half:])}

    def close(self):
        self._process.kill()  # processes forked meanwhile may hold its input open
        self._process.wait()


def _set_up(device, here, there, congestion):
    network.command("ip", "address", "add", here, "peer", there, "dev", device)
    network.command("ip", "link", "set", device, "txqueuelen", 2000, "up")
    # Of the route, because a namespace may not choose every congestion control for itself.
    network.command("ip", "route", "replace", there, "dev", device, "src", here, "congctl",
                    congestion)
