"""The operator's tool on any machine: over HTTPS as over the control socket, and by a proxy."""
import contextlib
import hashlib
import json
import os
import pwd
import shlex
import signal
import socket
import stat
import subprocess

import pytest

from harness.network import free_port
from harness.sandbox import BIN, PASSWORD
from harness.sshd import login
from harness.waiting import SCALE, poll
from test_demo_path import PAGE, Tunnel

TOKENS = {name: "rat_" + name[0] * 43 for name in ("anna", "ben", "old")}
USED = ("REMOTE_ACCESS_CONTROL", "REMOTE_ACCESS_SERVER", "https_proxy", "HTTPS_PROXY", "no_proxy",
        "NO_PROXY")


def operator(name, token, expires="2099-01-01T00:00:00Z", **more):
    return {"name": name, "tokens": [{"label": token, "expires": expires, "sha256":
                                      hashlib.sha256(TOKENS[token].encode()).hexdigest()}], **more}


OPERATORS = {
    "operators": [operator("anna", "anna", accounts=[pwd.getpwuid(os.getuid()).pw_name]),
                  operator("ben", "ben"), operator("carl", "old", "2020-01-01T00:00:00Z")],
    "device_groups": {"all": {}},
    "grants": [{"name": "everything", "who": ["anna"], "devices": ["all"], "services": ["*"],
                "verbs": ["list", "connect", "verify", "close", "manage"]},
               {"name": "looking", "who": ["ben"], "devices": ["all"], "services": ["ssh_*"],
                "verbs": ["list"]}]}


class Office(Tunnel):
    """The tunnel with an API, and an operator's machine with a home of its own."""

    operators = OPERATORS

    def __init__(self, launch, certificates, home, api="127.0.0.1", options=(), **more):
        (home / "operators.json").write_text(json.dumps(self.operators))
        (home / "operators.json").chmod(0o600)
        self.port, self.ca = free_port(), home / "api-ca.pem"
        self.ca.write_text(certificates.authority)
        certificates.issue(f"api-{home.name}", "ca", f"IP:{api}")
        certificate, key = certificates.paths(f"api-{home.name}")
        super().__init__(launch, certificates, home, **more, options=(
            "--operators", home / "operators.json", "--api", f"{api}:{self.port}",
            "--api-cert", certificate, "--api-key", key, "--store", home / "store", *options))
        self.url = f"https://{api}:{self.port}"
        self.environment = {name: value for name, value in os.environ.items() if name not in USED}
        self.environment |= {"XDG_CONFIG_HOME": str(home / "config"),
                             "PATH": f"{BIN}:{os.environ['PATH']}"}

    def at_work(self, *arguments, server=None, environment=(), **options):
        """(status, output) of the tool, over HTTPS."""
        done = subprocess.run(
            [BIN / "remote-access", *(["--server", server] if server else []), *arguments],
            capture_output=True, text=True, timeout=60 * SCALE, check=False,
            env=self.environment | dict(environment), **options)
        text = done.stdout + done.stderr
        assert not any(token in text for token in TOKENS.values())
        return done.returncode, text

    def log_in(self, name, *arguments, url=None, ca=None, **options):
        return self.at_work("login", url or self.url, "--ca", str(ca or self.ca), "--token-file",
                            "-", *arguments, input=TOKENS[name] + "\n", **options)


@pytest.fixture(scope="module")
def office(launch, certificates, workspace):
    (workspace / "office").mkdir()
    office = Office(launch, certificates, workspace / "office")
    status, text = office.log_in("anna")
    assert (status, text.splitlines()[0]) == (0, f"logged in to {office.url} as anna"), text
    yield office
    log = office.gateway.log_beside("backend")
    assert office.back_end.poll() is None and "Sanitizer" not in log, log


@contextlib.contextmanager
def other_login(office, name):
    assert office.log_in(name)[0] == 0
    try:
        yield
    finally:
        assert office.log_in("anna")[0] == 0


@pytest.mark.parametrize("command", [
    "devices", "devices --json", "devices --names", "devices --away dev*", "devices dev* gw*",
    "device dev1", "device dev1 --json", "device dev2", "services dev1", "services dev1 --json",
    "services dev2", "sessions", "sessions --json", "close 12345", "close x/../y", "can dev1",
    "can dev1/ssh_localhost", "can dev1/ssh_localhost --json", "can dev1 --verb open",
    "can dev1 --verb fly", "can dev2", "can dev1/", "token list", "token revoke nothing",
    "verify dev1 root --password-stdin", "verify dev1 nobody --password-stdin",
    "verify dev2 root --password-stdin", "disconnect dev2", "connect dev1/nothing",
    "connect dev2/ssh", "connect dev2", "forward dev1/nothing", "ssh-config dev*", "status"])
def test_both_carriers_answer_alike(office, command):
    outcomes = [run(*shlex.split(command), input=PASSWORD)
                for run in (office.operate, office.at_work)]
    if command == "status":  # its values change
        outcomes = [(status, [line.split()[0] for line in text.splitlines()])
                    for status, text in outcomes]
    elif command == "ssh-config dev*":
        outcomes[0] = (outcomes[0][0], outcomes[0][1].replace(
            f" --control {office.home}/control", ""))
    assert outcomes[0] == outcomes[1]
    assert outcomes[0][1]


def test_who_and_what(office):
    for status, text in office.operate("whoami"), office.at_work("whoami"):
        assert (status, text.splitlines()[0].split()) == (0, ["operator", "anna"]), text
    assert office.at_work("can", "dev1/ssh_localhost") == (0, "allowed, by the grant everything\n")
    assert office.at_work("ssh-config", "dev*")[1] == \
        "Host dev*\n    ProxyCommand remote-access connect %n/ssh_localhost\n"
    with other_login(office, "ben"):
        assert office.at_work("services", "dev1", "--names") == (0, "ssh_localhost\n")
        status, text = office.at_work("can", "dev1/ssh_localhost")
        assert status == 1 and text.startswith("not allowed"), text
        for command in "connect dev1", "connect dev1/ssh_localhost", "disconnect dev1":
            status, text = office.at_work(*command.split(), stdin=subprocess.DEVNULL)
            assert status == 1 and "remote-access: " in text and "no device" not in text, text
        assert office.at_work("connect", "dev1/http_localhost")[0] == 1


def test_token_of_a_lost_laptop(office):
    done = subprocess.run([BIN / "remote-access", "token", "make", "--label", "laptop", "--days",
                           "2"], capture_output=True, text=True, env=office.environment, check=True)
    token = done.stdout.strip()
    listed = json.loads(office.at_work("token", "list", "--json")[1])
    number, = [row["id"] for row in listed if row["label"] == "laptop"]
    elsewhere = {"XDG_CONFIG_HOME": str(office.home / "laptop")}
    assert office.at_work("login", office.url, "--ca", str(office.ca), "--token-file", "-",
                          input=token, environment=elsewhere)[0] == 0
    with subprocess.Popen([BIN / "remote-access", "connect", "dev1"], stdin=subprocess.PIPE,
                          env=office.environment | elsewhere, stdout=subprocess.PIPE,
                          stderr=subprocess.PIPE) as tool:
        assert tool.stdout.readline().startswith(b"SSH-2.0")
        assert office.at_work("token", "revoke", number) == (0, f"{number} revoked\n")
        assert tool.wait(10) == 1 and b"cut off: " in tool.stderr.read()
    status, text = office.at_work("devices", environment=elsewhere)
    assert status == 1 and f"log in again with \"remote-access login {office.url}" in text


def test_logins_are_kept_to_oneself(office):
    folder = office.home / "config/remote-access"
    file = folder / "servers.json"
    assert [stat.S_IMODE(path.stat().st_mode) for path in (folder, file)] == [0o700, 0o600]
    assert list(folder.iterdir()) == [file]
    file.chmod(0o640)
    for command in ("devices",), ("logout",):
        status, text = office.at_work(*command)
        assert status == 1 and "other accounts may read it" in text
    file.chmod(0o600)
    assert office.at_work("logout")[0] == 0
    assert office.at_work("devices", server=office.url) == (
        1, f"remote-access: there is no login for {office.url}; log in with \"remote-access login "
        f"{office.url}\"\n")
    assert office.at_work("logout")[0] == 1
    assert office.log_in("anna")[0] == 0


@pytest.fixture(scope="module")
def deaf():
    """A port that takes connections and says nothing."""
    with socket.create_server(("127.0.0.1", 0)) as server:
        yield server.getsockname()[1]


@pytest.mark.parametrize("name, url, ca, status, text", [
    ("old", None, None, 1, "log in again"),
    ("wrong", None, None, 1, "log in again"),
    ("two words", None, None, 1, "that is no token"),
    ("anna", None, "stranger-ca", 1, "is not trusted here; get the authority's"),
    ("anna", "https://localhost:{port}", None, 1, "is not for the name localhost"),
    ("anna", "https://127.0.0.1:{closed}", None, 3, "cannot be reached: Connection refused"),
    ("anna", "https://127.0.0.1:{deaf}", None, 3, "no answer in time"),
    ("anna", "https://" + 64 * "a", None, 3, "no address is known"),
    ("anna", "http://127.0.0.1:{port}", None, 2, "only https:// is possible"),
    ("anna", "https://127.0.0.1:{port}/elsewhere", None, 1, ""),
    ("anna", None, "/missing", 1, "/missing: No such file")])
def test_login_says_what_is_wrong(office, certificates, deaf, name, url, ca, status, text):
    kept = (office.home / "config/remote-access/servers.json").read_bytes()
    ca = certificates.paths(ca)[0] if ca and ca[0] != "/" else ca
    url = (url or office.url).format(port=office.port, closed=free_port(), deaf=deaf)
    done = office.at_work("--timeout", "2", "login", url, "--ca", str(ca or office.ca),
                          "--token-file", "-", input=TOKENS.get(name, name))
    assert (done[0], text in done[1]) == (status, True), done
    assert (office.home / "config/remote-access/servers.json").read_bytes() == kept


# ---- sessions

def test_output_that_waits(office):
    """A reader that takes nothing for a while gets all of it."""
    outputs = []
    for run in office.tool("connect", "dev1/http_localhost"), \
            [BIN / "remote-access", "connect", "dev1/http_localhost"]:
        with subprocess.Popen(run, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                              env=office.environment) as tool:
            tool.stdin.write(b"GET / HTTP/1.0\r\n\r\n")
            tool.stdin.flush()
            with pytest.raises(subprocess.TimeoutExpired):  # it has more than a pipe takes
                tool.wait(1)
            outputs.append((tool.stdout.read().partition(b"\r\n\r\n")[2] == PAGE, tool.wait(10)))
    assert outputs == [(True, 0)] * 2


def test_last_bytes_of_the_input_arrive(office):
    """sshd hears them, and leaves."""
    outcomes = []
    for run in office.tool("connect", "dev1/ssh_localhost"), \
            [BIN / "remote-access", "connect", "dev1/ssh_localhost"]:
        done = subprocess.run(run, input=b"no protocol\r\n", capture_output=True, check=False,
                              env=office.environment, timeout=20 * SCALE)
        outcomes.append((done.returncode, done.stdout[:7], done.stderr))
    assert outcomes == [(0, b"SSH-2.0", b"")] * 2


@pytest.mark.parametrize("number, whole", [(signal.SIGKILL, False), (signal.SIGHUP, True)])
def test_session_ends_with_the_tool(office, number, whole):
    count = len(office.audit())
    with subprocess.Popen([BIN / "remote-access", "connect", "dev1/ssh_localhost"],
                          stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                          env=office.environment) as tool:
        assert tool.stdout.readline().startswith(b"SSH-2.0")
        tool.send_signal(number)
        if whole:
            tool.communicate(b"no protocol\r\n")
    ended = poll(lambda: [line for line in office.audit()[count:]
                          if line["event"] == "session_end"], 10, "the session's end")[0]
    assert ended["whole"] is whole


@contextlib.contextmanager
def forwarding(office, *arguments):
    with subprocess.Popen([BIN / "remote-access", "forward", *arguments], stdout=subprocess.PIPE,
                          text=True, env=office.environment) as tool:
        try:
            yield tool, int(tool.stdout.readline().split()[0].rpartition(":")[2])
        finally:
            tool.terminate()


@pytest.mark.parametrize("count", [1, 8])
def test_curl_through_a_forwarded_port(office, count):
    with forwarding(office, "dev1/http_localhost") as (tool, port):
        outputs = [office.home / f"forwarded-{n}" for n in range(count)]
        office.run("curl", "-sS", "--fail", "--noproxy", "*", "--parallel", "--parallel-immediate",
                   *[part for out in outputs for part in (f"http://127.0.0.1:{port}/", "-o", out)])
        assert all(output.read_bytes() == PAGE for output in outputs)
        lines = [tool.stdout.readline() for _ in range(2 * count)]
        assert sum("up 1.0 MiB" in line for line in lines) == count, lines


def test_forwarded_client_is_reset_when_it_is_cut_off(office):
    with forwarding(office, "dev1/ssh_localhost") as (tool, port):
        with socket.create_connection(("127.0.0.1", port)) as client:
            assert client.recv(8).startswith(b"SSH-2.0")
            number = tool.stdout.readline().split()[0]
            assert number in office.at_work("sessions", "--names")[1]
            assert office.at_work("close", number)[0] == 0
            with pytest.raises(ConnectionResetError):
                while client.recv(4096):
                    pass
        assert "CUT OFF" in tool.stdout.readline()


# ---- the proxy

@pytest.fixture(scope="module", params=[None, "clerk:p.ss"])
def proxy(office, request):
    port = free_port()
    settings = office.home / f"proxy-{port}.conf"
    account = f"BasicAuth {request.param.replace(':', ' ')}\n" if request.param else ""
    settings.write_text(f"Port {port}\nListen 127.0.0.1\nAllow 127.0.0.1\n"
                        f"ConnectPort {office.port}\nLogLevel Connect\n{account}")
    with subprocess.Popen(["tinyproxy", "-d", "-c", settings], stdout=subprocess.PIPE, text=True,
                          stderr=subprocess.STDOUT) as process:
        try:
            poll(lambda: socket.socket().connect_ex(("127.0.0.1", port)) == 0, 10, "the proxy")
            yield f"http://{{}}127.0.0.1:{port}", request.param
        finally:
            process.terminate()


def test_through_a_proxy(office, proxy):
    url, account = proxy
    name = url.format("")
    through = {"https_proxy": url.format(account.replace(".ss", "%2Ess") + "@" if account else "")}
    assert office.at_work("devices", "--names", environment=through) == (0, "dev1\n")
    done = subprocess.run(
        login("ssh", office.home, "-o", "ProxyCommand=remote-access connect %n", "operator@dev1",
              "seq 20000"), capture_output=True, env=office.environment | through, check=False,
        timeout=60 * SCALE)
    assert done.stdout.split()[-1:] == [b"20000"], done.stderr
    wrong = {"https_proxy": url.format("clerk:wrong@"), "no_proxy": "elsewhere"}
    status, text = office.at_work("devices", environment=wrong)
    if account:
        assert status == 3 and f"proxy {name} has refused: 401" in text or "407" in text, text
        assert "wrong" not in text
        status, text = office.at_work("devices", environment={"HTTPS_PROXY": name})
        assert status == 3 and "https_proxy=http://USER:PASSWORD@" in text, text
    assert office.at_work("devices", environment=wrong | {"no_proxy": "127.0.0.1"})[0] == 0
    status, text = office.at_work("login", "https://127.0.0.1:1", "--token-file", "-", input="t",
                                  environment=through)
    assert status == 3 and f"proxy {name} has refused: 403" in text, text


def test_proxy_that_is_not_there(office):
    port = free_port()
    status, text = office.at_work("devices", environment={"https_proxy": f"127.0.0.1:{port}"})
    assert status == 3 and f"proxy http://127.0.0.1:{port}: cannot be reached" in text, text
