"""How the daemon ends on a signal, and on a real fault."""
import ctypes
import os
import pathlib
import platform
import re
import signal
import time

import pytest

from harness.cloud import NEW_SESSION, RELEASE, BackEnd
from harness.sandbox import COMMAND

FAULTING_CODE = {"x86_64": b"\x31\xc0\x89\x00",                   # xor eax,eax; mov [rax],eax
                 "aarch64": b"\x00\x00\x80\xd2\x00\x00\x00\xf9"}  # mov x0,#0; str x0,[x0]


@pytest.fixture(scope="module")
def back_ends():
    return {name: BackEnd() for name in ("interrupt", "violation", "fault", "pipe", "terminate")}


@pytest.fixture(scope="module")
def gateways(launch, back_ends):
    return launch(**{name: {"cloud": back_end.port, "ends": [1] if name[0] in "ivf" else []}
                     for name, back_end in back_ends.items()})


@pytest.fixture
def daemon(request, gateways, back_ends):
    """The gateway and the channel for the test, found by the first word of its name."""
    name = request.node.name.split("_")[1]
    gateways[name].log.wait("I", "handshake response code is 0!")
    return gateways[name], back_ends[name].channel()


def last_line(gateway):
    return gateway.log.lines[-1].level, gateway.log.lines[-1].text


def test_interrupt(daemon):
    gateway, _ = daemon
    os.kill(gateway.daemon.pid, signal.SIGINT)
    assert gateway.daemon.wait_exit() == 1
    assert last_line(gateway) == ("D", "Recv signal = 2. Terminating...")


def test_terminate_has_its_default_action(daemon):
    gateway, _ = daemon
    before = gateway.log.mark()
    assert gateway.daemon.terminate() == 128 + signal.SIGTERM
    assert gateway.log.mark() == before


def test_pipe_signals_are_counted_and_survived(daemon):
    gateway, channel = daemon
    pid, blocked = gateway.daemon.pid, re.compile(r"SigBlk:\s+(\w+)")
    tasks = [path for path in pathlib.Path(f"/proc/{pid}/task").iterdir() if not int(
        blocked.search((path / "status").read_text())[1], 16) >> (signal.SIGPIPE - 1) & 1]
    assert len(tasks) >= 3
    os.kill(pid, signal.SIGSTOP)  # so that all of them come at once
    for task in tasks:
        ctypes.CDLL(None).tgkill(pid, int(task.name), signal.SIGPIPE)
    os.kill(pid, signal.SIGCONT)
    gateway.log.wait("I", "socket pipe broken!", count=len(tasks))
    assert len(gateway.log.find("D", "Recv signal = 13. Terminating...")) == len(tasks)
    channel.settle()


def check_backtrace(gateway):
    """The texts of the frames."""
    assert gateway.daemon.wait_exit() == 1
    gateway.log.in_order([("D", "Recv signal = 11. Terminating..."),
                          ("D", "now got a segmentation violation signal ")])
    count = gateway.log.wait("I", re.compile(r"backtrace\(\) returned \d+ addresses"))
    frames = [line.text for line in gateway.log.find("I", re.compile(r"  \[\d\d\] .+"))]
    assert len(frames) == int(count.text.split()[2]) <= 64
    assert [frame[:6] for frame in frames] == [f"  [{n:02}]" for n in range(len(frames))]
    return frames


def test_violation_by_a_signal(daemon):
    gateway, _ = daemon
    os.kill(gateway.daemon.pid, signal.SIGSEGV)
    frames = check_backtrace(gateway)
    assert last_line(gateway) == ("I", frames[-1])
    # Sent while a broken pipe is being dealt with, it is often taken by the thread that reports.
    # One that is taken by a thread with a lock of the memory allocator may let that thread log a
    # little more before the process ends.
    for start in range(10):
        gateway.daemon = gateway.spawn(f"-{start}")
        gateway.daemon.find_pid()
        gateway.log.wait("I", "workerLoopThread start!")
        for number in (signal.SIGPIPE, signal.SIGSEGV):
            os.kill(gateway.daemon.pid, number)
        assert check_backtrace(gateway)
        assert gateway.log.find("I", "socket pipe broken!")


def test_many_interrupts_while_nothing_can_be_logged(launch):
    """The log is a pipe that nobody reads, so the report's alarm ends the daemon."""
    back_end = BackEnd()
    gateway = launch(unread={"cloud": back_end.port, "ends": [1], "command": (
        "/bin/bash", "-c", f"exec {' '.join(COMMAND)} 2> >(exec sleep 60)")})["unread"]
    back_end.channel().send_at_once(*[(RELEASE, b"", "fill", "nobody")] * 2000)
    for _ in range(100):
        time.sleep(0.01)
        if gateway.daemon.status is None:
            os.kill(gateway.daemon.pid, signal.SIGINT)
    assert gateway.daemon.wait_exit() == 1


def library_start(pid):
    with open(f"/proc/{pid}/maps", encoding="utf-8") as maps:
        return int(next(line for line in maps if "/libc.so.6" in line).split("-")[0], 16)


def test_fault_of_the_proxy_thread(daemon):
    """inet_ntop(), which the next session needs, is made to write to address 0."""
    gateway, channel = daemon
    here = ctypes.cast(ctypes.CDLL(None).inet_ntop, ctypes.c_void_p).value
    pid = gateway.daemon.pid
    with open(f"/proc/{pid}/mem", "r+b", buffering=0) as memory:
        memory.seek(here - library_start("self") + library_start(pid))
        memory.write(FAULTING_CODE[platform.machine()])
    with open(f"/proc/{pid}/maps", encoding="utf-8") as maps:
        is_instrumented = "/libasan" in maps.read()
    channel.send(NEW_SESSION, b"{}")
    frames = check_backtrace(gateway)
    if is_instrumented and not frames:
        pytest.skip("the sanitizer's own unwinding faulted on its alternate stack")
    assert any("libc.so.6(inet_ntop" in frame for frame in frames) and len(frames) > 4, frames
