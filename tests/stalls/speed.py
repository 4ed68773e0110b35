"""The speed of the link between a gateway and its back end."""
import contextlib
import subprocess

from harness.network import command


def limit(cloud, uplink=None, downlink=None):
    """Limits what leaves by either end, in bits per second; None takes the limit away.

    Behind the limit lies a queue of 200 ms, of 24 KB at least.
    """
    for side, device, bits_per_s in ((contextlib.nullcontext(), "uplink", uplink),
                                     (cloud, "downlink", downlink)):
        with side:
            subprocess.run(["tc", "qdisc", "del", "dev", device, "root"], check=False,
                           stderr=subprocess.DEVNULL)
            if bits_per_s:
                burst, queue = max(3200, int(bits_per_s / 800)), max(24000, int(bits_per_s / 40))
                command("tc", "qdisc", "add", "dev", device, "root", "tbf", "rate",
                        f"{int(bits_per_s)}bit", "burst", burst, "limit", burst + queue)
