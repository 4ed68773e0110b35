"""Networks of a run's own: the daemons, the back ends and the local services meet in them.

A network namespace has nothing but loopback, so that nothing in it can reach, or be reached by,
anything outside. The default route of the first one leads nowhere: a packet to an unknown address
is swallowed without an answer, as by a filter. A second one is joined to it by a veth pair.
"""
import ctypes
import itertools
import os
import subprocess

DEFAULT_GATEWAY, FILTERED_ADDRESS = "10.77.0.1", "10.99.0.9"
_CLONE_NEWUSER, _CLONE_NEWNET = 0x10000000, 0x40000000
_libc = ctypes.CDLL(None, use_errno=True)
_ports = itertools.count(20001)  # below the kernel's own range, and nothing else runs here


def free_port():
    return next(_ports)


def command(*words, text=None):
    done = subprocess.run([*map(str, words)], input=text, capture_output=True, text=True,
                          check=False)
    if done.returncode != 0:
        raise RuntimeError(f"{' '.join(map(str, words))}: {done.stderr}")


def _call(function, *arguments):
    if function(*arguments) != 0:
        raise OSError(ctypes.get_errno(), os.strerror(ctypes.get_errno()))


def enter_private_network():
    """Move this process into a namespace; an ordinary user becomes root of a user namespace."""
    uid, gid = os.getuid(), os.getgid()
    try:
        _call(_libc.unshare, _CLONE_NEWNET if uid == 0 else _CLONE_NEWNET | _CLONE_NEWUSER)
    except OSError as error:
        raise SystemExit(f"a network namespace is needed here, refused: {error}") from error
    maps = {"setgroups": "deny", "uid_map": f"0 {uid} 1", "gid_map": f"0 {gid} 1"} if uid else {}
    for name, text in maps.items():
        with open(f"/proc/self/{name}", "w", encoding="ascii") as file:
            file.write(text)
    for words in ("link set lo up", "route add 10.77.0.0/24 dev lo",
                  f"route add default via {DEFAULT_GATEWAY} dev lo"):
        command("ip", *words.split())


class Namespace:
    """A second namespace. What this thread makes inside a `with` of it belongs to it: sockets,
    processes and threads."""

    def __init__(self):
        self._home = os.open("/proc/thread-self/ns/net", os.O_RDONLY)
        _call(_libc.unshare, _CLONE_NEWNET)
        self._file = os.open("/proc/thread-self/ns/net", os.O_RDONLY)
        with self:
            command("ip", "link", "set", "lo", "up")

    def __enter__(self):
        _call(_libc.setns, self._file, _CLONE_NEWNET)

    def __exit__(self, *_):
        _call(_libc.setns, self._home, _CLONE_NEWNET)

    @property
    def path(self):
        """A file that stands for it, for other programs."""
        return f"/proc/{os.getpid()}/fd/{self._file}"

    def join(self, here, there):
        """Lays a veth pair between this process's namespace and this one; each end is given as
        (device, addresses...)."""
        command("ip", "link", "add", here[0], "type", "veth", "peer", "name", there[0], "netns",
                self.path)
        with self:
            _set_up(*there)
        _set_up(*here)


def _set_up(device, *addresses):
    for address in addresses:
        command("ip", "address", "add", f"{address}/24", "dev", device)
    command("ip", "link", "set", device, "up")
