"""ssh for many gateways: host keys that are trusted once, and certificates for minutes."""
import json
import pathlib
import signal
import socket
import subprocess
import time

import pytest

from harness.sandbox import BIN
from harness.sshd import run_sshd
from harness.waiting import SCALE, poll
from test_operator_https import OPERATORS, Office

SERVICE = "dev1/ssh_localhost"
GRANTS = [{"name": "support", "who": ["anna"], "devices": ["all"], "services": ["ssh_*"],
           "verbs": ["list", "connect", "manage"], "ssh_accounts": ["operator"]},
          {"name": "no-account", "who": ["ben"], "devices": ["all"], "services": ["ssh_*"],
           "verbs": ["list", "connect"]}]


def make_key(path, *arguments):
    subprocess.run(["ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-C", "", *arguments, "-f",
                    path], check=True)
    return path


class TrustingOffice(Office):
    """The gateway's sshd believes certificates only."""

    operators = {**OPERATORS, "grants": GRANTS}

    def __init__(self, launch, certificates, home):
        make_key(home / "ca")
        (home / "principals").mkdir()
        (home / "principals/operator").write_text("operator@dev1\n")
        self.temporary = home / "temporary"  # of the back end and the tool
        self.temporary.mkdir()
        with pytest.MonkeyPatch.context() as patch:
            patch.setenv("TMPDIR", str(self.temporary))
            super().__init__(launch, certificates, home,
                             options=("--ssh-ca", home / "ca", "--linger", 2),
                             sshd=(f"TrustedUserCAKeys {home}/ca.pub",
                                   f"AuthorizedPrincipalsFile {home}/principals/%u"))
        self.environment |= {"TMPDIR": str(self.temporary), "HOME": str(home)}

    def ssh(self, *arguments, **options):
        """(status, output) of the tool's ssh, which may not ask anybody."""
        done = self.at_work("ssh", *arguments, stdin=subprocess.DEVNULL, **options)
        assert not list(self.temporary.iterdir())
        return done

    def events(self, *names):
        return [line for line in self.audit() if line["event"] in names]

    def sign(self, key, principal, validity):
        """A certificate that the back end would not make."""
        subprocess.run(["ssh-keygen", "-q", "-s", self.home / "ca", "-I", "test", "-n", principal,
                        "-V", validity, f"{key}.pub"], check=True)

    def ask_socket(self, request, control="control"):
        with socket.socket(socket.AF_UNIX) as link:
            link.connect(str(self.home / control))
            link.sendall(json.dumps(request).encode() + b"\n")
            return json.loads(link.makefile().readline())

    def reload(self):
        """The names of the files that were not read."""
        count = len(self.events("reload"))
        self.back_end.send_signal(signal.SIGHUP)
        return poll(lambda: self.events("reload")[count:], 10, "reload")[0]["failed"]

    def show_other_host_key(self):
        self.gateway.beside.stop("sshd")
        for name in "host_key", "host_key.pub":
            (self.home / name).unlink()
        make_key(self.home / "host_key")
        run_sshd(self.gateway.beside, self.home, self.sshd_port)

    def log_in_with(self, key):
        return subprocess.run(
            ["ssh", "-F", "/dev/null", "-i", key, "-o", "ProxyCommand=remote-access connect %n",
             "-o", "BatchMode=yes", "-o", "StrictHostKeyChecking=no", "-o",
             "UserKnownHostsFile=/dev/null", "operator@dev1", "echo in"], capture_output=True,
            text=True, timeout=60 * SCALE, check=False, env=self.environment)


@pytest.fixture(scope="module")
def office(launch, certificates, workspace):
    (workspace / "certificates").mkdir()
    office = TrustingOffice(launch, certificates, workspace / "certificates")
    assert office.log_in("anna")[0] == 0
    yield office
    log = office.gateway.log_beside("backend")
    assert office.back_end.poll() is None and "Sanitizer" not in log, log


def test_host_key_is_trusted_once(office):
    assert office.at_work("ssh-known-hosts", "--recorded", "dev1") == (0, "")
    status, text = office.at_work("ssh-known-hosts", "dev1")
    own = (office.home / "host_key.pub").read_text().rsplit(" ", 1)[0]
    assert (status, text) == (0, f"dev1 {own}\n")
    for _ in range(2):  # the same again, and nothing twice in the file
        assert office.at_work("ssh-known-hosts", SERVICE, "--append",
                              str(office.home / "known")) == (0, "")
    assert (office.home / "known").read_text() == text
    assert office.operate("ssh-known-hosts", "--recorded", "dev1") == (0, text)
    (office.home / "config.ssh").write_text(
        office.at_work("ssh-config", "--full", "dev*")[1] + "    UserKnownHostsFile /dev/null\n"
        "    StrictHostKeyChecking yes\n    BatchMode yes\n")
    done = subprocess.run(["ssh", "-F", office.home / "config.ssh", "operator@dev1"], text=True,
                          capture_output=True, check=False, env=office.environment)
    assert "Permission denied" in done.stderr, done.stderr  # its host key is known
    line, = office.events("host_key_first")
    assert line["who"] == "anna" and line["keys"].startswith("ssh-ed25519 SHA256:")


def test_host_keys_outlive_a_restart(office):
    """Of a back end with a copy of the store, which makes no certificates."""
    program, copy = BIN / "remote_access_backend", office.home / "copy"
    subprocess.run([program, "backup", "--store", office.home / "store", copy], check=True)
    office.gateway.beside.start(
        "second", program, "--listen", "127.0.0.1:0", "--plain", "--devices",
        office.gateway.root / "devices.json", "--store", copy, "--control", office.home / "second")
    office.gateway.beside.wait_for_line("second", f"{office.home / 'second'} ready")
    service = {"device": "dev1", "service": "ssh_localhost"}
    key, = office.ask_socket({"do": "host-keys", **service}, "second")["keys"]
    assert f"{key['type']} {key['key']} " in (office.home / "host_key.pub").read_text()
    assert key["who"] == "anna" and abs(time.time() - key["seen"]) < 600
    answer = office.ask_socket({"do": "ssh-certificate", **service, "public_key":
                                (office.home / "ca.pub").read_text()}, "second")
    assert answer["kind"] == "not-implemented"
    office.gateway.beside.stop("second")


def test_certificate_logs_in(office):
    assert office.ssh("dev1", "whoami; exit 7") == (7, "operator\n")
    assert office.ssh(f"operator@{SERVICE}", "-v", "echo in")[0] == 0
    line = office.events("ssh_certificate")[0]
    assert line["principals"] == "operator@dev1" and line["key"].startswith("SHA256:")
    assert f"anna {line['serial']}" in office.gateway.log_beside("sshd")
    status, text = office.ssh("root@dev1", "true")
    assert status == 255 and "Permission denied" in text
    key = make_key(office.home / "own")
    assert office.ssh("--identity", str(key), "dev1", "echo in") == (0, "in\n")


@pytest.mark.parametrize("principal, validity, is_in", [
    ("operator@dev1", "-1m:+5m", True), ("operator@dev1", "-10m:-5m", False),
    ("operator@dev2", "-1m:+5m", False), ("root@dev1", "-1m:+5m", False),
    ("operator", "-1m:+5m", False)])
def test_what_the_gateway_believes(office, tmp_path, principal, validity, is_in):
    key = make_key(tmp_path / "key")
    office.sign(key, principal, validity)
    done = office.log_in_with(key)
    assert (done.returncode == 0) is is_in, done.stderr
    assert is_in or "Permission denied" in done.stderr


def ask_for_certificate(office, public_key, service="ssh_localhost", device="dev1"):
    return office.ask_socket({"do": "ssh-certificate", "device": device, "service": service,
                              "public_key": public_key})


def test_certificate_has_no_more_than_it_says(office, tmp_path):
    public = pathlib.Path(f"{make_key(tmp_path / 'key')}.pub").read_text()
    answer = ask_for_certificate(office, public)
    assert 0 < answer["expires"] - time.time() <= 300
    (tmp_path / "key-cert.pub").write_text(answer["certificate"] + "\n")
    text = subprocess.run(["ssh-keygen", "-L", "-f", tmp_path / "key-cert.pub"], text=True,
                          capture_output=True, check=True).stdout
    words = text.split("Principals:")[1].split()
    assert words == ["operator@dev1", "Critical", "Options:", "(none)", "Extensions:",
                     "permit-pty"], text
    assert f"Serial: {answer['serial']}" in text and f'"anna {answer["serial"]}"' in text
    count = len(office.events("ssh_certificate"))
    for wrong in (answer["certificate"], f"no-pty {public}", public + public,
                  public.replace("AAAA", "AAAB", 1), "-f /etc/passwd", "ssh-ed25519",
                  "ssh-dss AAAA", public[:40]):
        assert ask_for_certificate(office, wrong)["kind"] == "bad-request", wrong
    assert len(office.events("ssh_certificate")) == count
    assert not list(office.temporary.iterdir())


def test_no_account_no_certificate(office):
    assert office.log_in("ben")[0] == 0
    try:
        status, text = office.ssh("operator@dev1", "-o", "BatchMode=yes", "true")
        assert status == 255 and "\"ssh_accounts\"" in text and "Permission denied" in text, text
        status, text = office.at_work("ssh-known-hosts", "dev1", "--forget")
        assert status == 1 and office.events("host_key_forget") == []
    finally:
        assert office.log_in("anna")[0] == 0


def test_changed_host_key_is_refused(office):
    known = office.events("host_key_first")[0]["keys"]
    office.show_other_host_key()
    status, text = office.at_work("ssh-known-hosts", "dev1")
    assert status == 1 and f"the host key of {SERVICE} has changed: someone may be" in text, text
    line, = poll(lambda: office.events("host_key_changed"), 10, "the line of the changed key")
    assert line["known"] == known != line["keys"] and line["who"] == "anna"
    status, text = office.ssh("dev1", "true")
    assert status == 255 and "Host key verification failed" in text, text
    assert office.at_work("ssh-known-hosts", "dev1", "--forget")[0] == 0
    assert len(office.events("host_key_forget")) == 1
    assert office.ssh("dev1", "echo in") == (0, "in\n")  # first use, again
    assert len(office.events("host_key_first")) == 2


def test_broken_authority(office):
    """A key that cannot sign leaves the one in use; at the start it is an error."""
    ca = (office.home / "ca").read_bytes()
    make_key(office.home / "locked", "-N", "secret phrase")
    try:
        for text, words in ((b"nonsense\n", "is no private key of ssh"),
                            ((office.home / "locked").read_bytes(), "has a passphrase")):
            (office.home / "ca").write_bytes(text)
            assert office.reload() == "authority of ssh"
            office.gateway.beside.wait_for_line("backend", words)
            assert office.ssh("dev1", "echo in") == (0, "in\n")
        done = subprocess.run(
            [BIN / "remote_access_backend", "--listen", "127.0.0.1:0", "--plain", "--devices",
             office.gateway.root / "devices.json", "--operators", office.home / "operators.json",
             "--ssh-ca", office.home / "ca"], capture_output=True, text=True, check=False,
            timeout=20 * SCALE)
        assert done.returncode == 1 and "has a passphrase" in done.stderr
    finally:
        (office.home / "ca").write_bytes(ca)


def test_half_a_tool_leaves_no_key(office):
    """Ended by a signal, before ssh runs and while it does."""
    for wait in 0, 2:
        with subprocess.Popen([BIN / "remote-access", "ssh", "dev1", "sleep 30"],
                              env=office.environment, stdin=subprocess.DEVNULL) as tool:
            time.sleep(0.05 + wait * SCALE)
            tool.terminate()
            assert tool.wait(10 * SCALE) != 0
        assert not list(office.temporary.iterdir())
