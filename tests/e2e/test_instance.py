"""One instance: the PID file and its lock."""
import os

import pytest

from harness.cloud import BackEnd
from harness.sandbox import PID_FILE

PID_PATH = f"/{PID_FILE}"
ALREADY = ("I", "RemoteAccessDaemon already exit")
NOT_OPENED = ("I", f"Open file {PID_PATH} failed!")


@pytest.fixture(scope="module")
def first(launch):
    """A daemon that found the file of one that was killed."""
    back_end = BackEnd()
    gateway = launch(first={"cloud": back_end.port, "files": {PID_FILE: "99999\0 and what else was there"}})["first"]
    return gateway, back_end.channel()


def test_stale_pid_file_is_taken_over(first):
    gateway, _ = first
    gateway.log.wait("I", "Start RemoteAccessDaemon...")
    with open(f"/proc/{gateway.daemon.pid}/status", encoding="ascii") as status:
        inner_pid = next(line for line in status if line.startswith("NSpid:")).split()[-1]
    assert (gateway.root / PID_FILE).read_bytes() == inner_pid.encode() + b"\0"


def test_second_instance_leaves(first):
    gateway, channel = first
    before = (gateway.root / PID_FILE).read_bytes()
    for number in (2, 3):  # closing the refused descriptor must not give the first one's lock away
        second = gateway.spawn(f"-{number}")
        assert second.wait_exit() == 0
        assert [(line.level, line.text) for line in second.log.lines] == [ALREADY]
    assert (gateway.root / PID_FILE).read_bytes() == before
    channel.settle()


def test_killed_daemon_leaves_no_obstacle(launch):
    gateway = launch(killed={})["killed"]
    gateway.log.wait("I", "Start RemoteAccessDaemon...")
    gateway.daemon.signal(9)
    gateway.daemon.wait_exit()
    gateway.daemon = gateway.spawn("-again")
    gateway.daemon.find_pid()
    gateway.log.wait("I", "Start RemoteAccessDaemon...")


@pytest.mark.parametrize("case, line", [
    ("link to a file", NOT_OPENED), ("link to nothing", NOT_OPENED), ("directory", NOT_OPENED),
    ("file for the directory", NOT_OPENED), ("no directory", ("E", "Create Dir /tmp/brimlock error!"))])
def test_unusable_pid_file(launch, case, line):
    """Whatever others have planted in /tmp, the daemon leaves with status 0 and harms nothing."""
    victim = b"precious"

    def plant(root):
        directory, pid_file = root / "tmp/brimlock", root / PID_FILE
        (root / "tmp/victim").write_bytes(victim)
        if case == "no directory":
            os.symlink("/tmp/missing", directory)
        elif case == "file for the directory":
            directory.write_text("")
        else:
            directory.mkdir()
            if case == "directory":
                pid_file.mkdir()
            else:
                os.symlink("/tmp/victim" if case == "link to a file" else "/tmp/missing", pid_file)

    gateway = launch(**{case.replace(" ", "-"): {"prepare": plant, "ends": [0], "bus": False}}).popitem()[1]
    assert gateway.daemon.wait_exit() == 0
    assert [(found.level, found.text) for found in gateway.log.lines] == [line]
    assert (gateway.root / "tmp/victim").read_bytes() == victim
    assert not (gateway.root / "tmp/missing").exists()
