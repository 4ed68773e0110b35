"""The whole path with the reference back end: real ssh, sftp and curl through the tunnel."""
import asyncio
import contextlib
import json
import os
import pathlib
import pwd
import random
import shlex
import signal
import socket
import ssl
import stat
import subprocess
import tempfile
import time

import pytest

from harness.backend import device_entry, start_back_end
from harness.network import free_port
from harness.sandbox import BIN, PASSWORD, REPOSITORY
from harness.sshd import login, start_sshd
from harness.waiting import SCALE, poll
from harness.waiting import run as run_on_loop
from test_account import sha512
from test_bus_policy import ALONE

STRANGER, STRANGER_NAME = pwd.getpwnam("nobody").pw_uid, "nobody"
NAMES = ("ssh_localhost", "sftp_localhost", "http_localhost")
PAGE, COPY = random.Random(1).randbytes(1 << 20), random.Random(2).randbytes(8 << 20)


async def serve_page(reader, writer):
    await reader.readuntil(b"\r\n\r\n")
    writer.write(b"HTTP/1.0 200 OK\r\nContent-Length: %d\r\n\r\n" % len(PAGE) + PAGE)
    await writer.drain()
    writer.close()


class Tunnel:
    """Gateway, services and back end; `ports` are those of the gateway's services, by name.

    address   where the back end listens for gateways
    beside    names of further gateways with the same services
    offers    further services of the gateway
    """

    def __init__(self, launch, certificates, home, page=serve_page, options=(),
                 address="127.0.0.1", beside=(), sshd=(), offers=()):
        self.home, self.listen = home, free_port()
        self.ports, self.services = {name: free_port() for name in NAMES}, {}
        web, self.sshd_port = free_port(), free_port()
        run_on_loop(asyncio.start_server(page, "127.0.0.1", web, backlog=64))
        offered = [{"type": name.split("_")[0].upper(), "name": name, "ip": "127.0.0.1",
                    "port": web if name == "http_localhost" else self.sshd_port} for name in NAMES]
        offered += offers
        usual = {"cloud": self.listen, "authority": certificates.authority, "services": offered,
                 "files": {"etc/shadow": f"root:{sha512(PASSWORD)}:19000:0:99999:7:::\n"}}
        gateways = launch(demo=usual, **{
            name: usual | {"config": {"gw_system_devicename": name}} for name in beside})
        self.gateway = gateways["demo"]
        self.back_end = start_back_end(
            self.gateway, (address, self.listen), certificates.paths(), "--control",
            self.home / "control", "--audit", self.home / "audit", *options, ports=self.ports,
            registered=[device_entry(gateway) for gateway in gateways.values()])
        start_sshd(self.gateway.beside, self.home, self.sshd_port, *sshd)
        for gateway in gateways.values():
            gateway.log.wait("I", "handshake response code is 0!", seconds=10)

    def run(self, *command):
        done = subprocess.run(list(map(str, command)), capture_output=True, timeout=60 * SCALE,
                              check=False)
        assert done.returncode == 0, done.stderr.decode() + self.gateway.log_beside("backend")
        return done.stdout

    def tool(self, *arguments, control="control"):
        return [BIN / "remote-access", "--control", self.home / control, *arguments]

    def operate(self, *arguments, control="control", **options):
        """(status, output) of the operator's tool."""
        done = subprocess.run(self.tool(*arguments, control=control), capture_output=True,
                              text=True, timeout=60 * SCALE, check=False, **options)
        return done.returncode, done.stdout + done.stderr

    @property
    def by_name(self):
        tool = f"{BIN}/remote-access --control {self.home}/control"
        return ("ssh", "-o", f"ProxyCommand={tool} connect %h/ssh_localhost", "operator@dev1")

    def audit(self):
        return [json.loads(line) for line in (self.home / "audit").read_text().splitlines()]

    def audited(self, event, count):
        """The first line of this event behind the first `count` lines, of an operator's tool: the
        ends of sessions by forwarded ports may come late."""
        return poll(lambda: [line for line in self.audit()[count:] if line["event"] == event
                             and line["from"].startswith("process ")], 5, event)[0]

    def login(self, program, *arguments):
        return self.run(*login(program, self.home, *arguments))


@pytest.fixture(scope="module")
def tunnel(launch, certificates, workspace):
    (workspace / "home").mkdir()
    tunnel = Tunnel(launch, certificates, workspace / "home")
    yield tunnel
    log = tunnel.gateway.log_beside("backend")
    assert tunnel.back_end.poll() is None and "Sanitizer" not in log, log


def test_sftp_both_ways(tunnel):
    up, there, back = (tunnel.home / name for name in ("up", "there", "back"))
    up.write_bytes(COPY)
    (tunnel.home / "batch").write_text(f"put {up} {there}\nget {there} {back}\n")
    tunnel.login("sftp", "-P", tunnel.ports["sftp_localhost"], "-b", tunnel.home / "batch",
                 "operator@127.0.0.1")
    assert there.read_bytes() == COPY and back.read_bytes() == COPY


def test_rsync_both_ways(tunnel):
    tree, there, back = (tunnel.home / name for name in ("tree", "synced", "synced-back"))
    (tree / "deep").mkdir(parents=True)
    for number in range(200):
        (tree / "deep" / str(number)).write_bytes(COPY[:number * 500])
    tool = f"{BIN}/remote-access --control {tunnel.home}/control"
    shell = shlex.join(login("ssh", tunnel.home, "-o",
                             f"ProxyCommand={tool} connect %h/ssh_localhost"))
    for source, target in (f"{tree}/", f"operator@dev1:{there}"), (f"operator@dev1:{there}/", back):
        tunnel.run("rsync", "-a", "-e", shell, source, target)
    tunnel.run("diff", "-r", tree, back)


@pytest.mark.parametrize("count", [1, 8])
def test_curl(tunnel, count):
    outputs = [tunnel.home / f"page-{n}" for n in range(count)]
    url = f"http://127.0.0.1:{tunnel.ports['http_localhost']}/"
    tunnel.run("curl", "-sS", "--fail", "--parallel", "--parallel-immediate",
               *[part for output in outputs for part in (url, "-o", output)])
    assert all(output.read_bytes() == PAGE for output in outputs)


def test_operator_logs_in_by_the_devices_name(tunnel):
    count = len(tunnel.audit())
    assert tunnel.login(*tunnel.by_name, "seq 20000").split()[-1] == b"20000"
    line = tunnel.audited("session_end", count)
    assert line["who"] == pwd.getpwuid(os.getuid()).pw_name
    assert (line["device"], line["service"], line["whole"]) == ("dev1", "ssh_localhost", True)
    assert line["bytes_up"] > 100000 and line["bytes_down"] > 1000
    assert line["reason"] == "the service closed"


def page_for(account, address):
    """What a client of this account gets of the page: all, a part, or nothing."""
    os.seteuid(account)  # of the process that makes a TCP socket, or connects a Unix one
    try:
        client = socket.socket(socket.AF_UNIX if isinstance(address, str) else socket.AF_INET)
        client.connect(address)
    finally:
        os.seteuid(0)
    got = b""
    with client, contextlib.suppress(ConnectionError):
        client.sendall(b"GET / HTTP/1.0\r\n\r\n")
        while piece := client.recv(65536):
            got += piece
    return got.partition(b"\r\n\r\n")[2]


@pytest.fixture
def public_folder():
    with tempfile.TemporaryDirectory() as folder:
        os.chmod(folder, 0o755)
        yield folder
        assert not os.listdir(folder)


@pytest.mark.parametrize("options", [(), ("--socket",), ("--shared",)])
def test_operator_forwards_a_port(tunnel, options, public_folder):
    if options == ("--socket",):
        options = ("--socket", f"{public_folder}/web")
        with socket.socket(socket.AF_UNIX) as stale:
            stale.bind(options[1])
    shared_by = "shared port used by {}" if options == ("--shared",) else ""
    count = len(tunnel.audit())
    with subprocess.Popen(tunnel.tool("forward", "dev1/http_localhost", *options), text=True,
                          stdout=subprocess.PIPE, stderr=subprocess.PIPE) as tool:
        try:
            path = tool.stdout.readline().split()[0]
            address = path if path[0] == "/" else ("127.0.0.1", int(path.rpartition(":")[2]))
            assert page_for(0, address) == PAGE
            assert " opened" in tool.stdout.readline()
            assert "the service closed; up 1.0 MiB" in tool.stdout.readline()
            if address == path:
                assert stat.S_IMODE(os.stat(path).st_mode) == 0o600
                os.chmod(path, 0o666)  # the account is checked too, not only the mode
            got = None if ALONE else page_for(STRANGER, address)
            assert ALONE or got == (PAGE if "--shared" in options else b"")
            if got == b"":
                assert f"it is {STRANGER_NAME}'s, and this port" in tool.stderr.readline()
        finally:
            tool.terminate()
            assert tool.wait(10) == -signal.SIGTERM
    begun = [line["from"].partition(", ")[2] for line in tunnel.audit()[count:]
             if line["event"] == "session_begin"]
    assert begun == [shared_by.format(pwd.getpwuid(0).pw_name), shared_by.format(STRANGER_NAME)][
        :2 if got else 1]


def test_operator_is_not_kept_waiting(tunnel):
    with socket.socket(socket.AF_UNIX) as silent:
        silent.bind(str(tunnel.home / "silent"))
        silent.listen()
        for command in ("devices",), ("connect", "dev1/ssh_localhost"), ("close", "x"):
            status, text = tunnel.operate("--timeout", "1", *command, control="silent")
            assert (status, "has not answered for 1 s" in text) == (3, True), text


def test_operator_asks(tunnel):
    def listed(*command):
        status, text = tunnel.operate(*command, "--json")
        assert status == 0, text
        return json.loads(text)

    assert [(device["device"], device["connected"], device["services"])
            for device in listed("devices")] == [("dev1", True, 3)]
    assert sorted(s["name"] for s in listed("services", "dev1")) == sorted(NAMES)
    assert listed("sessions") == []
    for password, status in (PASSWORD, 0), ("wrong", 1):
        count = len(tunnel.audit())
        assert tunnel.operate("verify", "dev1", "root", "--password-stdin",
                              input=password)[0] == status
        line = tunnel.audited("account_result", count)
        assert (line["account"], line["right"]) == ("root", status == 0)
        assert password not in json.dumps(line)


def test_operator_closes_and_disconnects(tunnel):
    with subprocess.Popen(tunnel.tool("connect", "dev1/ssh_localhost"), stdin=subprocess.PIPE,
                          stdout=subprocess.PIPE, stderr=subprocess.PIPE) as tool:
        assert tool.stdout.readline().startswith(b"SSH-2.0")
        number = tunnel.operate("sessions", "--names")[1].strip()
        assert tunnel.operate("close", number) == (0, f"{number} closed\n")
        assert tool.wait(10) == 1 and b"cut off: closed by " in tool.stderr.read()
    assert tunnel.operate("close", number)[0] == 1
    assert tunnel.operate("disconnect", "dev1", "--reason", "a test")[0] == 0
    device = poll(lambda: [device for device in json.loads(tunnel.operate("devices", "--json")[1])
                           if device["connected"]], 20, "the device is back")[0]
    reason = device["last_reason"]
    assert reason.startswith("disconnected by ") and "a test" in reason
    assert tunnel.operate("devices", "--away", "--names", "*:dev?") == (0, "")
    assert json.loads(tunnel.operate("status", "--json")[1])["version"]


def test_password_is_asked_for_again_after_a_stop(tunnel):
    ours, theirs = os.openpty()
    with subprocess.Popen(["timeout", str(30 * SCALE), "setsid", "--ctty",
                           *tunnel.tool("verify", "dev1", "root")], stdin=theirs) as tool:
        os.close(theirs)
        for typed in b"half\x1a", PASSWORD.encode() + b"\n":
            seen = b""
            while not seen.endswith(b"on dev1: "):
                seen += os.read(ours, 1)
            assert b"half" not in seen
            os.write(ours, typed)
        assert tool.wait() == 0
    os.close(ours)


@pytest.mark.parametrize("command, status, text", [
    (("connect", "dev1/nothing"), 1, "dev1 does not offer nothing"),
    (("forward", "dev1/nothing"), 1, "dev1 does not offer nothing"),
    (("connect", "dev2/ssh"), 1, "no device is named dev2"),
    (("connect", "dev1/"), 2, "no DEVICE/SERVICE"),
    (("devices", "dev*", "gw*"), 1, "no device matches gw*"),
    (("devcies",), 2, 'did you mean "devices"?'),
    (("forward", "dev1/ssh_localhost", "BUSY"), 1, "Address already in use"),
    (("verify", "dev1", "root"), 1, "no terminal")])
def test_operator_is_told_what_is_wrong(tunnel, command, status, text):
    command = [str(tunnel.listen) if word == "BUSY" else word for word in command]
    count = len(tunnel.audit())
    done, output = tunnel.operate(*command, start_new_session=True)
    assert (done, text in output) == (status, True), output
    events = {"dev1/nothing": "session_refused", "dev2/ssh": "denied"}
    if command[0] == "connect" and status == 1:
        assert tunnel.audited(events[command[1]], count)["reason"] == text


def test_frozen_daemon_is_named(tunnel):
    daemon = tunnel.gateway.daemon.pid
    os.kill(daemon, signal.SIGSTOP)
    try:
        start = time.monotonic()
        status, text = tunnel.operate("connect", "dev1/ssh_localhost")
        assert status == 1 and "dev1 is not answering (last heard 1" in text
        assert 9 < time.monotonic() - start < 12 * SCALE
    finally:
        os.kill(daemon, signal.SIGCONT)
    assert tunnel.login(*tunnel.by_name, "echo back").split() == [b"back"]


def test_operator_without_a_back_end(tunnel):
    assert tunnel.operate("devices", control="missing")[0] == 3


# ssh ends its ProxyCommand with its last bytes still under way.
@pytest.mark.parametrize("number, whole", [(signal.SIGKILL, False), (signal.SIGHUP, True)])
def test_operators_session_ends_with_his_tool(tunnel, number, whole):
    count = len(tunnel.audit())
    with subprocess.Popen(tunnel.tool("connect", "dev1/ssh_localhost"), stdin=subprocess.PIPE,
                          stdout=subprocess.PIPE) as tool:
        assert tool.stdout.readline().startswith(b"SSH-2.0")
        tool.send_signal(number)
        if whole:
            tool.communicate(b"no protocol\r\n")
    assert tunnel.audited("session_end", count)["whole"] is whole


@pytest.mark.parametrize("command", [
    ["remote-access", "connect", "dev1/ssh_localhost"], ["remote-access", "devices", "--json"],
    ["remote-access", "--version"], ["remote-access-ctl", "--version"]], ids=" ".join)
def test_operator_is_told_what_could_not_be_written(tunnel, command):
    with open("/dev/full", "w", encoding="ascii") as full:
        done = subprocess.run([BIN / command[0], *command[1:]], stdout=full,
                              env={**os.environ,
                                   "REMOTE_ACCESS_CONTROL": str(tunnel.home / "control")},
                              stdin=subprocess.DEVNULL, stderr=subprocess.PIPE, check=False,
                              timeout=20 * SCALE)
    assert done.returncode == 1 and b"No space left" in done.stderr


@pytest.mark.parametrize("line, offered", [
    ("connect dev1/", r"dev1/\$\(id\) dev1/ssh"), ("connect ", "dev1/ p:dev2/ q:dev2/"),
    ("verify p:", "dev2"), ("devices --a", "--away")])
def test_completion_offers_no_name_that_a_shell_would_run(line, offered):
    done = subprocess.run(["bash", "-c", """
        remote-access() { [[ $* = *services* ]] && printf '%s\n' '$(id)' ssh ||
                          printf '%s\n' dev1 p:dev2 q:dev2; }
        compopt() { :; }
        . "$0"
        COMP_LINE="remote-access $1" COMP_POINT=${#COMP_LINE} COMP_CWORD=2
        COMP_WORDS=($COMP_LINE '')
        _remote_access
        echo "${COMPREPLY[@]}" """, REPOSITORY / "packaging/completion/remote-access", line],
        capture_output=True, text=True, check=True).stdout
    assert done == offered + "\n"


def test_back_end_reads_its_files_again(certificates, tmp_path):
    """Rows: what the certificate and the list hold, and which of these is in use afterwards."""
    port, files = free_port(), [tmp_path / name for name in ("pem", "key", "devices", "log")]
    one, two = (json.dumps({"devices": [
        {"product_key": "p", "device_name": str(number), "device_secret": "s"}
        for number in range(count)]}) for count in (1, 2))

    def put(name, devices):
        content = [path.read_text() for path in certificates.paths(name)] if name else ["?", "?"]
        for path, text in zip(files, [*content, devices]):
            path.write_text(text)

    put("good", one)
    with open(files[3], "w", encoding="utf-8") as log, subprocess.Popen(
            [BIN / "remote_access_backend", "--listen", f"127.0.0.1:{port}", "--cert", files[0],
             "--key", files[1], "--devices", files[2]], stderr=log) as back_end:
        try:
            poll(lambda: "listening" in files[3].read_text(), 10, "the back end")
            for times, (name, devices, served, told) in enumerate([
                    ("wildcard", two, "wildcard",
                     "audit, certificate and key, devices; 2 devices registered"),
                    (None, one, "wildcard",
                     "audit, devices; not read: certificate and key; 1 devices registered"),
                    ("good", "no json", "good",
                     "audit, certificate and key; not read: devices; 1 devices registered")], 1):
                put(name, devices)
                back_end.send_signal(signal.SIGHUP)
                done = poll(lambda: files[3].read_text().split("read again: ")[times:], 10,
                            "a line")
                assert done[0].startswith(told + "\n")
                assert ssl.PEM_cert_to_DER_cert(ssl.get_server_certificate(
                    ("127.0.0.1", port))) == ssl.PEM_cert_to_DER_cert(certificates.text(served))
            assert files[3].read_text().count("what was in use stays") == 2
        finally:
            back_end.kill()


def test_unknown_setting_is_refused(tmp_path):
    (tmp_path / "conf").write_text('plain=1\nlisten="127.0.0.1:0"\ndevices="x"\naudti="-"\n')
    done = subprocess.run([BIN / "remote_access_backend", "--config", tmp_path / "conf"],
                          capture_output=True, text=True, timeout=20 * SCALE, check=False)
    assert done.returncode == 2 and "audti" in done.stderr


def test_control_socket_takes_no_nonsense(tunnel):
    for request, answer in {b"no json\n": "no JSON object", b'{"do":7}\n': 'no "do"',
                            b'{"do":"rm"}\n': "unknown request", b"x" * 5000: "too long",
                            b'{"do":"connect","device":"dev1","service":"http_localhost"}\n':
                            "no connected stream socket"}.items():
        with socket.socket(socket.AF_UNIX) as link:
            link.connect(str(tunnel.home / "control"))
            link.sendall(request)
            refused = json.loads(link.makefile().readline())
            assert refused["ok"] is False and answer in refused["error"]
    assert stat.S_IMODE((tunnel.home / "control").stat().st_mode) == 0o660


def test_control_socket_keeps_no_descriptor(tunnel):
    descriptors = pathlib.Path(f"/proc/{tunnel.back_end.pid}/fd")
    before = len(list(descriptors.iterdir()))
    for _ in range(20):
        with socket.socket(socket.AF_UNIX) as link, open("/dev/null", "rb") as file:
            link.connect(str(tunnel.home / "control"))
            socket.send_fds(link, [b'{"do":"sessions"}\n'], [file.fileno()] * 2)
            assert json.loads(link.makefile().readline())["ok"] is True
    poll(lambda: len(list(descriptors.iterdir())) < before + 10, 5, "descriptors to be closed")
