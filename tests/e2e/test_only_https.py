"""An operator elsewhere: nothing but the HTTPS port of the back end can be reached from where he
is, and one gateway of two is his."""
import os
import pwd
import shutil
import socket
import subprocess

import pytest

from harness.network import Namespace, command
from harness.sandbox import BIN, PASSWORD
from harness.sshd import as_user
from harness.waiting import SCALE, poll
from test_demo_path import COPY, PAGE
from test_operator_https import TOKENS, Office, operator

HERE, THERE = "10.89.0.1", "10.89.0.2"
FILE = COPY[:3 << 20]
POLICY = {
    "operators": [operator("anna", "anna"),
                  operator("boss", "ben", accounts=[pwd.getpwuid(os.getuid()).pw_name])],
    "device_groups": {"hers": {"names": ["dev1"]}},
    "grants": [{"name": "hers", "who": ["anna"], "devices": ["hers"], "verbs": ["list", "connect"],
                "services": ["ssh_*", "http_*"]},
               {"name": "everything", "who": ["boss"], "devices": ["*"], "services": ["*"],
                "verbs": ["list", "connect", "verify", "close", "open", "manage"]}]}
RULES = """table inet office { chain arriving { type filter hook input priority 0;
    iifname "uplink" tcp dport %d accept
    iifname "uplink" reject
}; }"""
SSH_CONFIG = """Host *
    User operator
    IdentityFile %s/login_key
    StrictHostKeyChecking no
    UserKnownHostsFile /dev/null
    LogLevel ERROR
"""


class Laptop:
    """A network and a file system of its own; `home` is all that it shares with the test."""

    def __init__(self, home, office):
        self.home, self.office, self.network = home, office, office.network
        shutil.copy(office.home / "login_key", home)
        shutil.copy(office.ca, home / "ca.pem")
        self.sandbox = [*as_user(
            home, "--ro-bind", BIN, "/opt/bin", "--unshare-ipc", "--chdir", home,
            "--clearenv", "--setenv", "HOME", home, "--setenv", "PATH", "/opt/bin:/usr/bin"),
            "bash", "-c"]

    def run(self, script, text=None):
        """(status, output, errors) of the script."""
        with self.network:
            done = subprocess.run(list(map(str, [*self.sandbox, script])), capture_output=True,
                                  input=text, timeout=60 * SCALE, check=False)
        return done.returncode, done.stdout, done.stderr.decode()

    def reaches(self, port):
        with self.network:
            client = socket.socket()
        client.settimeout(2 * SCALE)
        with client:
            return client.connect_ex((HERE, port)) == 0


class Headquarters(Office):
    operators = POLICY


@pytest.fixture(scope="module")
def laptop(launch, certificates, workspace):
    (workspace / "headquarters").mkdir()
    (workspace / "laptop").mkdir()
    network = Namespace()
    network.join(("uplink", HERE), ("downlink", THERE))
    office = Headquarters(launch, certificates, workspace / "headquarters", HERE,
                          address="0.0.0.0", beside=["dev2"])
    office.network = network
    laptop = Laptop(workspace / "laptop", office)
    open_ = [laptop.reaches(port) for port in (office.port, office.listen, office.sshd_port)]
    command("nft", "-f", "-", text=RULES % office.port)
    try:
        assert open_ == [True] * 3
        status, text, errors = laptop.run(
            f"remote-access login {office.url} --ca ca.pem --token-file -",
            TOKENS["anna"].encode() + b"\n")
        assert (status, text.split(b"\n")[0].decode()) == (
            0, f"logged in to {office.url} as anna"), errors
        status, text, errors = laptop.run("remote-access ssh-config 'dev*'")
        assert status == 0, errors
        (laptop.home / ".ssh").mkdir(0o700)
        (laptop.home / ".ssh/config").write_bytes(
            (SSH_CONFIG % laptop.home).encode() + text)
        yield laptop
    finally:
        command("nft", "delete", "table", "inet", "office")
    log = office.gateway.log_beside("backend")
    assert office.back_end.poll() is None and "Sanitizer" not in log, log


def test_nothing_but_https_leads_there(laptop):
    office = laptop.office
    ports = office.port, office.listen, office.sshd_port
    assert [laptop.reaches(port) for port in ports] == [True, False, False]
    assert [socket.socket().connect_ex((HERE, port)) for port in ports] == [0] * 3  # at home
    for path in office.home / "control", "/run/remote-access/control":
        assert laptop.run(f"remote-access --control {path} devices")[0] == 3


def test_what_is_seen(laptop):
    status, text, _ = laptop.run("remote-access devices --names; remote-access services dev1 "
                                 "--names; remote-access whoami | head -1")
    assert (status, text.split()) == (0, [b"dev1", b"http_localhost", b"ssh_localhost",
                                          b"operator", b"anna"])
    assert laptop.office.operate("devices", "--names") == (0, "dev1\ndev2\n")


COPIES = """
set -ex
scp -q up dev1:%(there)s/scp
scp -q dev1:%(there)s/scp back-scp
printf 'put up %(there)s/sftp\\nget %(there)s/sftp back-sftp\\n' | sftp -q -b - dev1
rsync -a up dev1:%(there)s/rsync
rsync -a dev1:%(there)s/rsync back-rsync
ssh dev1 'cat >%(there)s/ssh; cat %(there)s/ssh' <up >back-ssh
"""


def test_ssh_and_its_copies(laptop):
    there = laptop.office.home / "copies"
    there.mkdir()
    (laptop.home / "up").write_bytes(FILE)
    status, text, _ = laptop.run("ssh dev1 'seq 20000; exit 7'")
    assert (status, text.split()[-1]) == (7, b"20000")
    status, _, errors = laptop.run(COPIES % {"there": there})
    assert status == 0, errors
    for name in "scp", "sftp", "rsync", "ssh":
        assert (there / name).read_bytes() == FILE, name
        assert (laptop.home / f"back-{name}").read_bytes() == FILE, name
    assert laptop.run("scp -q dev1:/nothing .")[0] != 0
    for line in poll(lambda: (ends := [line for line in laptop.office.audit()
                                       if line["event"] == "session_end"])[7:] and ends, 10,
                     "the ends of 8 sessions"):
        assert (line["who"], line["device"], line["from"].split(", ")[1]) == (
            "anna", "dev1", "token anna")
        assert line["from"].startswith(THERE + ":")


FORWARDING = """
exec 3< <(exec remote-access forward dev1/http_localhost)
forward=$!
read -r address _ <&3
curl -sS --fail --parallel --parallel-immediate -o 1 "http://$address/" -o 2 "http://$address/"
status=$?
kill $forward
exit $status
"""


def test_curl_through_a_forwarded_port(laptop):
    status, _, errors = laptop.run(FORWARDING)
    assert status == 0, errors
    assert [(laptop.home / name).read_bytes() == PAGE for name in "12"] == [True] * 2


# Each is asked for the hidden gateway and for one that does not exist.
@pytest.mark.parametrize("commands, status", [
    (["device {}", "device pk1:{}", "services {}", "connect {}/ssh_localhost", "connect {}",
      "forward {}/http_localhost", "verify {} root --password-stdin", "disconnect {}", "can {}",
      "can {}/ssh_localhost", "can {} --verb list", "devices {}"], 1),
    (["devices --json", "sessions", "ssh-config", "devices --names 'dev[13]'"], 0)],
    ids=["named", "listed"])
def test_other_gateway_is_unknown(laptop, commands, status):
    script = "; ".join(f"remote-access {words} 2>&1; echo $?" for words in commands)
    outputs = [laptop.run(script.replace("{}", name), PASSWORD.encode())[1].decode()
               for name in ("dev2", "dev3")]
    assert outputs[0] == outputs[1].replace("dev3", "dev2")
    statuses = [line for line in outputs[0].splitlines() if line.isdigit()]
    assert statuses == [str(status)] * len(commands), outputs[0]
    assert ("dev2" in outputs[0]) == (status == 1)


def test_other_gateway_is_unknown_to_ssh(laptop):
    programs = "ssh {} true", "scp -q up {}:/x", "rsync -a up {}:/x", "echo | sftp -q -b - {}"
    for program in programs:
        outcomes = {name: laptop.run(program.replace("{}", name)) for name in ("dev2", "dev3")}
        for name, (status, _, errors) in outcomes.items():
            # What rsync adds, and its status, depend on which of its ends it hears of first.
            assert f"remote-access: no device is named {name}" in errors.splitlines(), errors
            assert status != 0 and errors.count(name) == 1, errors
    denied = [line for line in laptop.office.audit() if line["event"] == "denied"]
    assert {line["who"] for line in denied} == {"anna"}
    assert {"no grant covers pk1:dev2", "no device is named dev3"} <= {
        line["reason"] for line in denied}
