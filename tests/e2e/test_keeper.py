"""Sessions that outlive their line: the keeper on the gateway, and the operator's tool."""
import contextlib
import hashlib
import random
import re
import signal
import socket
import struct
import subprocess
import threading
import time

import pytest

from harness.network import free_port
from harness.sandbox import BIN
from harness.sshd import login
from harness.waiting import SCALE, poll
from test_demo_path import STRANGER
from test_operator_https import Office

RESET = b"reset"
BULK = random.Random(3).randbytes(24 << 20)


class Service:
    """A TCP service of the gateway: echoes at a rate, and remembers what it got."""

    def __init__(self, rate=None):
        self.listener = socket.create_server(("127.0.0.1", 0))
        self.port, self.rate, self.open = self.listener.getsockname()[1], rate, []
        threading.Thread(target=self._accept, daemon=True).start()

    def _accept(self):
        while True:
            connection, _ = self.listener.accept()
            self.open.append(connection)
            threading.Thread(target=self._echo, args=(connection,), daemon=True).start()

    def _echo(self, connection):
        with contextlib.suppress(OSError):
            while data := connection.recv(65536):
                if data == RESET:
                    connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER,
                                          struct.pack("ii", 1, 0))
                    return connection.close()
                connection.sendall(data)
                if self.rate:
                    time.sleep(len(data) / self.rate)
            connection.shutdown(socket.SHUT_WR)
        self.open.remove(connection)


class Kept(Office):
    """An office whose gateway has a keeper, and an echo and a slow one beside its services."""

    def __init__(self, launch, certificates, home):
        self.echo, self.slow, self.keeper_port = Service(), Service(8 << 20), free_port()
        super().__init__(launch, certificates, home, offers=[
            {"type": "TCP", "name": "echo", "ip": "127.0.0.1", "port": self.echo.port},
            {"type": "TCP", "name": "slow", "ip": "127.0.0.1", "port": self.slow.port},
            {"type": "KEEPER", "name": "keeper", "ip": "127.0.0.1", "port": self.keeper_port}])
        self.start_keeper()

    def start_keeper(self, *options):
        listening = self.gateway.log_beside("keeper").count("listening at")
        self.keeper = self.gateway.spawn_beside(
            "keeper", BIN / "remote_access_keeper", "--services",
            self.gateway.root / "brimlock/gateway/build/config/remote_terminal.json", *options)
        self.gateway.beside.wait_for_line("keeper", "listening at", listening + 1)

    @contextlib.contextmanager
    def forward(self, service, *options, carrier="control"):
        """The port of a `forward`, and its process; `said` is what it has printed."""
        tool = [BIN / "remote-access", "--control", self.home / "control"]
        if carrier == "https":
            tool = [BIN / "remote-access", "--server", self.url]
        path = self.home / f"forward-{time.monotonic_ns()}"
        with open(path, "wb") as log:
            process = subprocess.Popen([*tool, "forward", f"dev1/{service}", *options],
                                       stdout=log, stderr=log, env=self.environment)
        try:
            said = path.read_text
            poll(lambda: "leads to" in said(), 10, said)
            process.port = int(re.search(r"127\.0\.0\.1:(\d+)", said())[1])
            process.said = said
            yield process
        finally:
            process.terminate()
            process.wait()

    def wait_for_device(self):
        poll(lambda: "connected" in self.operate("devices")[1].split(), 30,
             lambda: self.operate("devices")[1])

    def cut_line(self):
        status, text = self.operate("disconnect", "dev1")
        assert status == 0, text

    def restart_back_end(self):
        self.back_end.send_signal(signal.SIGKILL)
        self.back_end.wait()
        listening = self.gateway.log_beside("backend").count("listening on")
        self.back_end = self.gateway.spawn_beside("backend", *self.back_end.args)
        self.gateway.beside.wait_for_line("backend", "listening on", listening + 1)

    def restart_daemon(self):
        self.gateway.daemon.terminate()
        self.gateway.daemon = self.gateway.spawn("-again")
        self.gateway.daemon.find_pid()

    def interrupt_sessions(self, event, service):
        return [line for line in self.audit() if line["event"] == event
                and line.get("service") == service]


@pytest.fixture(scope="module")
def kept(launch, certificates, workspace):
    (workspace / "kept").mkdir()
    office = Kept(launch, certificates, workspace / "kept")
    status, text = office.log_in("anna")
    assert status == 0, text
    yield office
    for name in ("backend", "keeper"):
        assert "Sanitizer" not in office.gateway.log_beside(name), office.gateway.log_beside(name)
    assert office.keeper.poll() is None


class Transfer:
    """Sends the bytes to an echo through a port, and collects what comes back. A plain session
    knows no end of one direction: it is over when all is back."""

    def __init__(self, port, data=BULK, plain=False):
        self.data, self.got, self.plain = data, bytearray(), plain
        self.connection = socket.create_connection(("127.0.0.1", port))
        self.threads = [threading.Thread(target=target) for target in (self._send, self._receive)]
        for thread in self.threads:
            thread.start()

    def _send(self):
        with contextlib.suppress(OSError):
            self.connection.sendall(self.data)
            if not self.plain:
                self.connection.shutdown(socket.SHUT_WR)

    def _receive(self):
        with contextlib.suppress(OSError):
            while data := self.connection.recv(65536):
                self.got += data
                if self.plain and len(self.got) == len(self.data):
                    return self.connection.close()

    def wait_for(self, count):
        poll(lambda: len(self.got) >= count, 30, lambda: f"{len(self.got)} of {count} bytes")

    def finish(self):
        for thread in self.threads:
            thread.join(60 * SCALE)
        assert len(self.got) == len(self.data)
        assert hashlib.sha256(self.got).digest() == hashlib.sha256(self.data).digest()


@pytest.mark.parametrize("carrier", ["control", "https"])
@pytest.mark.parametrize("fault", ["cut_line", "restart_back_end", "restart_daemon"])
def test_nothing_is_lost_with_the_line(kept, carrier, fault):
    connections = len(kept.slow.open)
    with kept.forward("slow", carrier=carrier) as forward:
        transfer = Transfer(forward.port)
        transfer.wait_for(1 << 20)
        getattr(kept, fault)()
        kept.wait_for_device()
        transfer.finish()
        assert "is lost" in forward.said() and "is back after" in forward.said(), forward.said()
        poll(lambda: "CUT" not in forward.said() and "ended after" in forward.said(), 10,
             forward.said)
    poll(lambda: len(kept.slow.open) == connections, 10, "the service's connection is closed")


def test_several_faults_and_sessions_at_once(kept):
    with kept.forward("slow") as forward:
        transfers = [Transfer(forward.port, BULK[:4 << 20]) for _ in range(8)]
        for round_ in range(3):
            transfers[0].wait_for((round_ + 1) << 19)
            kept.cut_line()
            kept.wait_for_device()
        for transfer in transfers:
            transfer.finish()


def test_a_shell_and_a_copy_go_on(kept):
    tool = f"{BIN}/remote-access --control {kept.home}/control"
    command = login("ssh", kept.home, "-o", f"ProxyCommand={tool} connect %h/ssh_localhost",
                    "operator@dev1", "read a; echo got $a; read b; echo got $b")
    with subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                          stderr=subprocess.PIPE) as shell:
        shell.stdin.write(b"one\n")
        shell.stdin.flush()
        assert shell.stdout.readline() == b"got one\n"
        kept.cut_line()
        shell.stdin.write(b"two\n")
        shell.stdin.flush()
        assert shell.stdout.readline() == b"got two\n"
        shell.stdin.close()
        assert shell.wait(30) == 0
        said = shell.stderr.read().decode()
    assert "is lost" in said and "is back after" in said


def test_lists_and_the_audit_name_the_service_and_nobody_reaches_the_keeper(kept):
    before = len(kept.audit())
    with kept.forward("echo") as forward:
        with socket.create_connection(("127.0.0.1", forward.port)) as client:
            client.sendall(b"x")
            assert client.recv(1) == b"x"
            assert "echo" in kept.operate("sessions")[1]
            kept.cut_line()
            kept.wait_for_device()
            poll(lambda: "is back" in forward.said(), 20, forward.said)
            client.sendall(b"y")
            assert client.recv(1) == b"y"
    begun = poll(lambda: (lines := [line for line in kept.audit()[before:] if
                                    line["event"] == "session_begin"])[1:] and lines, 5, "audit")
    assert {line["service"] for line in begun} == {"echo"}
    assert len({line["kept"] for line in begun}) == 1
    assert [line.get("resumed", False) for line in begun] == [False, True]
    for listed in ("services", "device"):
        assert "keeper" not in kept.operate(listed, "dev1")[1].lower().replace("keeps", "")
    for command in (("connect", "dev1/keeper"), ("forward", "dev1/keeper")):
        status, text = kept.operate(*command, stdin=subprocess.DEVNULL)
        assert status == 1 and "does not offer keeper" in text, text


def test_what_is_closed_on_purpose_stays_closed(kept):
    with kept.forward("echo") as forward:
        client = socket.create_connection(("127.0.0.1", forward.port))
        client.sendall(b"x")
        assert client.recv(1) == b"x"
        number = kept.operate("sessions", "--names")[1].split()[-1]
        status, text = kept.operate("close", number)
        assert status == 0, text
        with pytest.raises(ConnectionResetError):
            client.recv(1)
        poll(lambda: not kept.echo.open, 10, "the service is let go")
        poll(lambda: "closed by" in forward.said(), 5, forward.said)
        assert "is back" not in forward.said()


def test_a_service_that_resets_resets_the_client(kept):
    with kept.forward("echo") as forward:
        client = socket.create_connection(("127.0.0.1", forward.port))
        client.sendall(b"x")
        assert client.recv(1) == b"x"
        client.sendall(RESET)
        with pytest.raises(ConnectionResetError):
            while client.recv(100):
                pass


def test_another_account_is_not_let_in(kept):
    code = ("import socket,sys\n"
            f"s=socket.create_connection(('127.0.0.1',{kept.keeper_port}))\n"
            "s.settimeout(5)\n"
            "try: s.sendall(b'RAK1'); print(s.recv(10))\n"
            "except OSError: print(b'')\n")
    done = subprocess.run(["/usr/bin/python3", "-c", code], capture_output=True, text=True,
                          user=STRANGER, check=False, timeout=30)
    assert done.stdout == "b''\n", done.stdout + done.stderr
    assert "not the daemon's account" in kept.gateway.log_beside("keeper")


@pytest.mark.parametrize("sent", [b"", b"GET / HTTP/1.1\r\n\r\n", b"RAK1", bytes(5000)],
                         ids=["nothing", "another protocol", "a part", "much"])
def test_what_is_no_opening_is_closed(kept, sent):
    with socket.create_connection(("127.0.0.1", kept.keeper_port)) as connection:
        connection.settimeout(20)
        with contextlib.suppress(ConnectionResetError, BrokenPipeError):
            connection.sendall(sent)
            assert connection.recv(10) == b""


def test_plain_sessions_are_had_without_and_beside_a_keeper(kept):
    before = len(kept.audit())
    with kept.forward("echo", "--no-keep") as forward:
        Transfer(forward.port, BULK[:1 << 20], plain=True).finish()
    begun = [line for line in kept.audit()[before:] if line["event"] == "session_begin"]
    assert begun and "kept" not in begun[0]
    kept.keeper.send_signal(signal.SIGTERM)
    kept.keeper.wait()
    with kept.forward("echo") as forward:
        Transfer(forward.port, BULK[:1 << 20], plain=True).finish()
        assert "this session is not kept" in forward.said()
    kept.start_keeper("--sessions", "1")
    with kept.forward("echo") as forward:
        with socket.create_connection(("127.0.0.1", forward.port)) as first:
            first.sendall(b"x")
            assert first.recv(1) == b"x"
            Transfer(forward.port, BULK[:1 << 20], plain=True).finish()
            assert "the keeper has no place left" in forward.said()
