"""Usage: footprint.py ARCHITECTURE SIZE MINUTES

Lets one daemon be idle on its channel (TLS, the default periods) and then carry 32 sessions.
Prints a row of docs/footprint.md: SIZE, memory, wake-ups and bytes on the wire per hour.
RA_BUILD_DIR and RA_EMULATOR have the meaning that they have for the end-to-end tests.
"""
import pathlib
import re
import sys
import time

from harness import network
from harness.cloud import DATA_DOWN, BackEnd
from harness.local import start_echo
from harness.sandbox import BIN, EMULATOR, Gateway, start_gateways
from harness.workspace import Workspace

SESSIONS, BYTES = 32, 50000
# MQTT has a network of its own, so that it is not counted.
ELSEWHERE = ("bwrap", "--dev-bind", "/", "/", "--die-with-parent", "--unshare-net",
             "--unshare-pid", "--proc", "/proc")
MAPPING = re.compile(r"^(\w+)-.*\n(?:[A-Z].*\n)*?Rss: +(\d+) kB\n"
                     r"(?:[A-Z].*\n)*?Anonymous: +(\d+) kB", re.MULTILINE)
SWITCHES = re.compile(r"^voluntary_ctxt_switches:\s+(\d+)", re.MULTILINE)
LOW = 1 << 46  # an emulator maps its program below; its own memory lies where the kernel puts it


def memory_mib(pid):
    """What is resident, and what of that is no page of a file."""
    maps = pathlib.Path(f"/proc/{pid}/smaps").read_text()
    sizes = [(int(resident), int(anonymous)) for start, resident, anonymous in
             MAPPING.findall(maps) if not EMULATOR or int(start, 16) < LOW]
    return [sum(column) / 1024 for column in zip(*sizes)]


def wake_ups(pid):
    return sum(int(SWITCHES.search((task / "status").read_text())[1])
               for task in pathlib.Path(f"/proc/{pid}/task").iterdir())


def wire_bytes():
    """IP packets in both directions: nothing but the channel is on this network, and loopback
    counts a packet once."""
    return int(re.search(r"lo:\s+(\d+)", pathlib.Path("/proc/self/net/dev").read_text())[1])


def measure(workspace, seconds):
    certificates, echo = workspace.certificates, start_echo()
    back_end = BackEnd(tls=certificates.context())
    gateway = Gateway(workspace.directory, "idle", cloud=back_end.port, level=2,
                      authority=certificates.authority, config={
                          "gw_remoteaccess_trans_timeout": None,
                          "gw_remoteaccess_tcp_keepalive_period": None,
                          "gw_remoteaccess_ping_period": None})
    try:
        start_gateways([gateway])
        gateway.spawn_beside("cloud", *ELSEWHERE, "sh", "-c",
                             f"mosquitto -p 1883 & exec {BIN}/gateway_mqtt_bridge --bus "
                             f"{gateway.address} --host 127.0.0.1 --port 1883")
        channel, pid = back_end.channel(), gateway.daemon.pid
        time.sleep(40)  # until the tasks of the start are done
        wakes, wire, start = wake_ups(pid), wire_bytes(), time.monotonic()
        time.sleep(seconds)
        hours = (time.monotonic() - start) / 3600
        wakes, wire, idle = wake_ups(pid) - wakes, wire_bytes() - wire, memory_mib(pid)
        for session in [channel.open(echo) for _ in range(SESSIONS)]:
            channel.send(DATA_DOWN, bytes(BYTES), token=session)
            channel.collect(session, BYTES)
        return *idle, *memory_mib(pid), wakes / hours, wire / hours
    finally:
        for fault in gateway.stop():
            print(fault, file=sys.stderr)


def main(architecture, size, minutes):
    network.enter_private_network()
    with Workspace() as workspace:
        figures = measure(workspace, float(minutes) * 60)
    print(("| {} | {:.0f} KiB" + " | {:.1f} MiB" * 4 + " | {:,.0f} | {:,.0f} |").format(
        architecture, int(size) / 1024, *figures))


if __name__ == "__main__":
    if len(sys.argv) != 4:
        raise SystemExit(__doc__)
    main(*sys.argv[1:])
