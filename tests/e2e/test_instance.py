"""One instance: the PID file and its lock."""
import os
import signal

import pytest

from harness.sandbox import PID_FILE

NOT_OPENED = ("I", f"Open file /{PID_FILE} failed!")


def lines(process):
    return [(line.level, line.text) for line in process.log.lines]


def test_second_instance_leaves_and_the_file_of_a_dead_one_is_taken_over(connect):
    link = connect("first", files={PID_FILE: "99999\0 and what else was there"})
    gateway, pid_file = link.gateway, link.gateway.root / PID_FILE
    with open(f"/proc/{gateway.daemon.pid}/status", encoding="ascii") as status:
        inner_pid = next(line for line in status if line.startswith("NSpid:")).split()[-1]
    link.log.wait("I", "Start RemoteAccessDaemon...")
    for tag in ("-2", "-3"):  # the refused one must not give the first one's lock away
        second = gateway.spawn(tag)
        assert second.wait_exit() == 0
        assert lines(second) == [("I", "RemoteAccessDaemon already exit")]
        assert pid_file.read_bytes() == inner_pid.encode() + b"\0"
    link.channel.settle()
    os.kill(gateway.daemon.pid, signal.SIGKILL)
    gateway.daemon.wait_exit()
    gateway.daemon = gateway.spawn("-again")
    gateway.daemon.find_pid()
    gateway.log.wait("I", "Start RemoteAccessDaemon...")


# What is planted under which name, and what the daemon says to that.
PLANTED = {
    "link-to-a-file": (os.symlink, "/tmp/victim", PID_FILE, NOT_OPENED),
    "link-to-nothing": (os.symlink, "/tmp/missing", PID_FILE, NOT_OPENED),
    "hard-link": (os.link, "victim", PID_FILE, NOT_OPENED),
    "fifo": (lambda _, path: os.mkfifo(path), None, PID_FILE, NOT_OPENED),
    "directory-to-a-file": (os.symlink, "/tmp/victim", "tmp/brimlock", NOT_OPENED),
    "directory-to-another": (os.symlink, "/tmp/others", "tmp/brimlock", NOT_OPENED),
    "directory-to-nothing": (os.symlink, "/tmp/missing", "tmp/brimlock",
                             ("E", "Create Dir /tmp/brimlock error!"))}


@pytest.mark.parametrize("case", PLANTED)
def test_planted_file(launch, case):
    """Whatever others have planted in /tmp, the daemon leaves with status 0 and harms nothing."""
    plant, target, name, line = PLANTED[case]

    def prepare(root):
        (root / "tmp/victim").write_text("precious")
        (root / "tmp/others").mkdir()
        if name == PID_FILE:
            (root / "tmp/brimlock").mkdir()
        plant(root / "tmp" / target if plant is os.link else target, root / name)

    gateway = launch(**{case: {"prepare": prepare, "ends": [0], "bus": False}})[case]
    assert gateway.daemon.wait_exit() == 0
    assert lines(gateway.daemon) == [line]
    assert (gateway.root / "tmp/victim").read_text() == "precious"
    assert not (gateway.root / "tmp/missing").exists()
    assert not [*(gateway.root / "tmp/others").iterdir()]
