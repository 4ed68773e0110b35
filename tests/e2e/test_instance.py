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


@pytest.mark.parametrize("directory, pid_file, line", [
    (None, "/tmp/victim", NOT_OPENED), (None, "/tmp/missing", NOT_OPENED),
    ("/tmp/victim", None, NOT_OPENED),
    ("/tmp/missing", None, ("E", "Create Dir /tmp/brimlock error!"))],
    ids=["to-a-file", "to-nothing", "directory-to-a-file", "directory-to-nothing"])
def test_planted_link(request, launch, directory, pid_file, line):
    """Whatever others have planted in /tmp, the daemon leaves with status 0 and harms nothing."""
    def plant(root):
        (root / "tmp/victim").write_text("precious")
        if directory:
            os.symlink(directory, root / "tmp/brimlock")
        else:
            (root / "tmp/brimlock").mkdir()
            os.symlink(pid_file, root / PID_FILE)

    name = request.node.callspec.id
    gateway = launch(**{name: {"prepare": plant, "ends": [0], "bus": False}})[name]
    assert gateway.daemon.wait_exit() == 0
    assert lines(gateway.daemon) == [line]
    assert (gateway.root / "tmp/victim").read_text() == "precious"
    assert not (gateway.root / "tmp/missing").exists()
