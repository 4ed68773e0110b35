"""How the daemon ends on a signal, and on a real fault."""
import ctypes
import os
import platform
import re
import signal

import pytest

from harness.cloud import NEW_SESSION, BackEnd
from harness.waiting import poll

FAULTING_CODE = {"x86_64": b"\x31\xc0\x89\x00",                          # xor eax,eax; mov [rax],eax
                 "aarch64": b"\x00\x00\x80\xd2\x00\x00\x00\xf9"}         # mov x0,#0; str x0,[x0]
ENDS = {"interrupted": signal.SIGINT, "segv": signal.SIGSEGV, "fault": None, "broken-pipe": signal.SIGPIPE}


@pytest.fixture(scope="module")
def back_ends():
    return {name: BackEnd() for name in ENDS}


@pytest.fixture(scope="module")
def gateways(launch, back_ends):
    return launch(**{name: {"cloud": back_ends[name].port, "ends": [1] if name != "broken-pipe" else []}
                     for name in ENDS})


def mapping(pid, library):
    """Address and path of the first mapping of a library in a process."""
    with open(f"/proc/{pid}/maps", encoding="utf-8") as maps:
        line = next(line for line in maps if re.search(rf"/{library}[^/]*$", line))
    return int(line.split("-")[0], 16), line.split()[-1]


def break_function(pid, name):
    """Make a function of the C library write to address 0 in that process."""
    here, path = mapping("self", r"libc\.so\.6")
    there, its_path = mapping(pid, r"libc\.so\.6")
    assert path == its_path
    address = ctypes.cast(getattr(ctypes.CDLL(None), name), ctypes.c_void_p).value - here + there
    with open(f"/proc/{pid}/mem", "r+b", buffering=0) as memory:
        memory.seek(address)
        memory.write(FAULTING_CODE[platform.machine()])


def check_backtrace(log):
    log.in_order([("D", "Recv signal = 11. Terminating..."), ("D", "now got a segmentation violation signal ")])
    count = int(log.find("I", re.compile(r"backtrace\(\) returned \d+ addresses"))[0].text.split()[2])
    frames = log.find("I", re.compile(r"  \[\d\d\] .+"))
    assert 0 < count <= 64
    assert [frame.text[:6] for frame in frames] == [f"  [{n:02}]" for n in range(count)]
    assert log.lines[-1] is frames[-1]
    return frames


def test_interrupt(gateways, back_ends):
    back_ends["interrupted"].channel()
    gateway = gateways["interrupted"]
    gateway.daemon.signal(signal.SIGINT)
    assert gateway.daemon.wait_exit() == 1
    last = gateway.log.lines[-1]
    assert (last.level, last.text) == ("D", "Recv signal = 2. Terminating...")


def test_segmentation_violation_signal(gateways, back_ends):
    back_ends["segv"].channel()
    gateways["segv"].daemon.signal(signal.SIGSEGV)
    assert gateways["segv"].daemon.wait_exit() == 1
    check_backtrace(gateways["segv"].log)


def test_fault_of_the_proxy_thread(gateways, back_ends):
    """The next identifier is drawn by rand(), which now faults: the frames are that thread's."""
    gateway, channel = gateways["fault"], back_ends["fault"].channel()
    gateway.log.wait("I", "handshake response code is 0!")
    break_function(gateway.daemon.pid, "rand")
    channel.send(NEW_SESSION, b"{}")
    assert gateway.daemon.wait_exit() == 1
    frames = check_backtrace(gateway.log)
    assert any("libc.so.6(rand" in frame.text for frame in frames), [frame.text for frame in frames]
    assert len(frames) > 4


def test_broken_pipe_signals_are_counted_and_survived(gateways, back_ends):
    gateway, channel = gateways["broken-pipe"], back_ends["broken-pipe"].channel()
    gateway.log.wait("I", "handshake response code is 0!")
    for number in range(1, 4):
        os.kill(gateway.daemon.pid, signal.SIGPIPE)
        gateway.log.wait("I", "socket pipe broken!", count=number)
    assert len(gateway.log.find("D", "Recv signal = 13. Terminating...")) == 3
    channel.settle()


def test_terminate_has_its_default_action(launch):
    gateway = launch(terminated={})["terminated"]
    gateway.log.wait("I", "remote proxy thread start!")
    poll(lambda: gateway.log.find("I", "start to create cloud channel..."), 10, "first attempt")
    assert gateway.daemon.terminate() == 128 + signal.SIGTERM
    assert not gateway.log.find("D", re.compile("Recv signal.*"))
