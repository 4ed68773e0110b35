"""The whole way with our own back end: real ssh, sftp and curl through the tunnel over TLS."""
import hashlib
import http.server
import json
import random
import subprocess
import threading
from types import SimpleNamespace

import pytest

from harness.network import free_port
from harness.sandbox import BIN, CONFIG_DIR, IDENTITY, INSTALLED
from harness.tls import HOST
from harness.waiting import SCALE, poll

SERVICES = ("ssh_localhost", "sftp_localhost", "http_localhost")
PAGE_SIZE, COPY_SIZE = 1 << 20, 8 << 20
SSHD_CONFIG = """Port {port}
ListenAddress 127.0.0.1
HostKey {home}/host_key
AuthorizedKeysFile {home}/login_key.pub
PidFile none
StrictModes no
UsePAM no
Subsystem sftp internal-sftp
"""


class Page(http.server.BaseHTTPRequestHandler):
    content = random.Random(1).randbytes(PAGE_SIZE)

    def do_GET(self):
        self.send_response(200)
        self.send_header("Content-Length", str(PAGE_SIZE))
        self.end_headers()
        self.wfile.write(self.content)

    def log_message(self, *_):
        pass


@pytest.fixture(scope="module")
def home(workspace):
    directory = workspace / "home"
    directory.mkdir()
    for key in ("host_key", "login_key"):
        subprocess.run(["ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-f", directory / key], check=True)
    return directory


@pytest.fixture(scope="module")
def beside():
    """Start helpers with beside(command, log); they end with the module."""
    processes = []

    def start(command, log):
        with open(log, "wb") as file:
            processes.append(subprocess.Popen(["setpriv", "--pdeathsig", "KILL", *map(str, command)],
                                              stdin=subprocess.DEVNULL, stdout=file, stderr=file))
        return processes[-1]

    yield start
    for process in processes:
        process.kill()
        process.wait()


@pytest.fixture(scope="module")
def sshd_port(home, beside):
    """sshd for an ordinary user of its own sandbox: that takes no privilege whoever runs the tests."""
    port, etc = free_port(), home / "etc"
    etc.mkdir()
    (etc / "passwd").write_text(f"operator:x:1000:1000::{home}:/bin/sh\n")
    (etc / "group").write_text("operator:x:1000:\n")
    (home / "sshd_config").write_text(SSHD_CONFIG.format(port=port, home=home))
    beside(["bwrap", "--die-with-parent", "--unshare-user", "--uid", 1000, "--gid", 1000, "--unshare-pid",
            "--ro-bind", "/usr", "/usr", "--symlink", "usr/bin", "/bin", "--symlink", "usr/lib", "/lib",
            "--symlink", "usr/lib64", "/lib64", "--proc", "/proc", "--dev", "/dev", "--tmpfs", "/run",
            "--ro-bind", etc, "/etc", "--bind", home, home,
            "/usr/sbin/sshd", "-D", "-e", "-f", home / "sshd_config"], home / "sshd.log")
    return port


@pytest.fixture(scope="module")
def tunnel(launch, certificates, home, sshd_port, beside):
    """The local ports that lead to the gateway's services, by the services' names."""
    web = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Page)
    threading.Thread(target=web.serve_forever, daemon=True).start()
    offered = [{"type": name.split("_")[0].upper(), "name": name, "ip": "127.0.0.1",
                "port": web.server_port if name.startswith("http") else sshd_port} for name in SERVICES]
    devices = home / "devices.json"
    devices.write_text(json.dumps({"devices": [
        {key: IDENTITY["gw_system_" + key.replace("_", "")]
         for key in ("product_key", "device_name", "device_secret")}]}))
    devices.chmod(0o600)
    listen, ports = free_port(), {name: free_port() for name in SERVICES}
    certificate, key = certificates.paths()
    forwards = [part for name in SERVICES for part in ("--forward", f"{ports[name]}=dev1/{name}")]
    back_end = beside([BIN / "remote_access_backend", "--listen", f"127.0.0.1:{listen}", "--cert", certificate,
                       "--key", key, "--devices", devices, *forwards], home / "backend.log")
    gateway = launch(demo={
        "cloud": listen, "config": {"gw_remoteaccess_cloud_host": HOST, "gw_remoteaccess_tls_type": 1,
                                    "gw_remoteaccess_trans_timeout": 2000},
        "files": {f"{CONFIG_DIR}/ca.pem": certificates.authority(),
                  f"{CONFIG_DIR}/remote_terminal.json": json.dumps(offered),
                  f"{INSTALLED}/config/logger.conf": "level=1"}})["demo"]
    gateway.log.wait("I", "handshake response code is 0!", seconds=10)
    poll(lambda: "Server listening" in (home / "sshd.log").read_text(), 10, "sshd listens")
    yield SimpleNamespace(gateway=gateway, **ports)
    assert back_end.poll() is None, (home / "backend.log").read_text()
    assert "Sanitizer" not in (home / "backend.log").read_text()


def run(home, *command, seconds=60):
    done = subprocess.run(list(map(str, command)), capture_output=True, timeout=seconds * SCALE, check=False)
    logs = "\n".join((home / f"{name}.log").read_text()[-3000:] for name in ("backend", "sshd"))
    assert done.returncode == 0, f"{command[0]}: {done.stderr.decode()}\n{logs}"
    return done.stdout


def ssh_options(home):
    return ["-F", "/dev/null", "-i", home / "login_key", "-o", "StrictHostKeyChecking=no", "-o", "BatchMode=yes",
            "-o", "UserKnownHostsFile=/dev/null", "-o", "IdentitiesOnly=yes"]


def test_ssh_command(tunnel, home):
    output = run(home, "ssh", *ssh_options(home), "-p", tunnel.ssh_localhost, "operator@127.0.0.1",
                 "id -un; seq 1 20000 | sha256sum")
    expected = hashlib.sha256("".join(f"{n}\n" for n in range(1, 20001)).encode()).hexdigest()
    assert output.decode().split() == ["operator", expected, "-"]


def test_sftp_both_ways(tunnel, home):
    data = random.Random(2).randbytes(COPY_SIZE)
    (home / "up").write_bytes(data)
    (home / "batch").write_text(f"put {home}/up {home}/there\nget {home}/there {home}/back\n")
    run(home, "sftp", *ssh_options(home), "-P", tunnel.sftp_localhost, "-b", home / "batch", "operator@127.0.0.1")
    for name in ("there", "back"):
        assert hashlib.sha256((home / name).read_bytes()).digest() == hashlib.sha256(data).digest()


def test_curl(tunnel, home):
    assert run(home, "curl", "-sS", "--fail", f"http://127.0.0.1:{tunnel.http_localhost}/") == Page.content


def test_curl_eight_at_once(tunnel, home):
    outputs = [home / f"page-{n}" for n in range(8)]
    loads = [part for output in outputs for part in (f"http://127.0.0.1:{tunnel.http_localhost}/", "-o", output)]
    run(home, "curl", "-sS", "--fail", "--parallel", "--parallel-immediate", "--parallel-max", "8", *loads)
    assert all(output.read_bytes() == Page.content for output in outputs)
