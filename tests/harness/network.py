"""A network of the test run's own: the daemons, the back ends and the local services meet in it.

It is a network namespace with nothing but loopback, so that no test can reach, or be reached by,
anything outside. Its default route leads nowhere: a packet to an unknown address is swallowed
without an answer, as by a filter.
"""
import ctypes
import itertools
import os
import subprocess

DEFAULT_GATEWAY, FILTERED_ADDRESS = "10.77.0.1", "10.99.0.9"
_CLONE_NEWUSER, _CLONE_NEWNET = 0x10000000, 0x40000000
_ports = itertools.count(20001)  # below the kernel's own range, and nobody else is here


def free_port():
    return next(_ports)


def enter_private_network():
    """Move this process into the namespace; an ordinary user becomes root of a user namespace."""
    uid, gid = os.getuid(), os.getgid()
    flags = _CLONE_NEWNET if uid == 0 else _CLONE_NEWNET | _CLONE_NEWUSER
    if ctypes.CDLL(None, use_errno=True).unshare(flags) != 0:
        reason = os.strerror(ctypes.get_errno())
        raise SystemExit(f"the tests need a network namespace of their own, refused: {reason}")
    maps = {"setgroups": "deny", "uid_map": f"0 {uid} 1", "gid_map": f"0 {gid} 1"} if uid else {}
    for name, text in maps.items():
        with open(f"/proc/self/{name}", "w", encoding="ascii") as file:
            file.write(text)
    for command in ("link set lo up", "route add 10.77.0.0/24 dev lo",
                    f"route add default via {DEFAULT_GATEWAY} dev lo"):
        subprocess.run(["ip", *command.split()], check=True)
