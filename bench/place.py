"""Where one peer runs: two ports, a directory, and the processes started there."""
import contextlib
import pathlib

from harness.network import free_port
from harness.processes import ProcessGroup
from harness.waiting import poll


# A command behind it finds another system's /usr; it stays the same process.
IN_SYSTEM = ("unshare", "--mount", "sh", "-c", 'mount --bind "$0/usr" /usr && exec "$@"')


class Place(ProcessGroup):
    """`service` is where the load's service will listen on the gateway; the peer has to make it
    reachable at `operator`. Programs of the far side are started inside `with far_side`; the two
    sides reach each other at `gateway_address` and `far_address`. `tls` holds the run's throw-away
    certificates. `gateway` and `far` are the processes to measure on either side. `bare` is for a
    load that is its own way. `system` is another root whose /usr its programs get, and so its
    libraries."""

    def __init__(self, workspace, name, tls, system="", far_side=contextlib.nullcontext(),
                 addresses=("127.0.0.1", "127.0.0.1")):
        super().__init__(workspace / name)
        self.name, self.tls = name, tls
        self.service, self.operator = free_port(), free_port()
        self.gateway, self.far, self.bare = [], [], ()
        self.far_side, (self.gateway_address, self.far_address) = far_side, addresses
        self.system = system
        self.wrapper = (*IN_SYSTEM, system) if system else ()
        self.directory.mkdir()

    def start(self, name, *command):
        return super().start(name, *self.wrapper, *command)

    def write(self, name, text):
        (self.directory / name).write_text(text)
        return self.directory / name

    def wait_for_port(self, port):
        poll(lambda: _listens(port), 20, lambda: f"{self.name} on port {port}: " + "".join(
            log.read_text(errors="replace")[-2000:] for log in self.directory.glob("*.log")))


def _listens(port):
    """Looked up rather than tried: a connection would be a session. In this thread's network."""
    for table in ("/proc/thread-self/net/tcp", "/proc/thread-self/net/tcp6"):
        for line in pathlib.Path(table).read_text().splitlines()[1:]:
            fields = line.split()
            if fields[3] == "0A" and int(fields[1].rpartition(":")[2], 16) == port:
                return True
    return False
