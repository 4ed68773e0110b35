"""The whole way with our own back end: real ssh, sftp and curl through the tunnel over TLS."""
import asyncio
import json
import random
import subprocess

import pytest

from harness.network import free_port
from harness.sandbox import BIN, CA_FILE, CONFIG, CONFIG_DIR
from harness.tls import HOST
from harness.waiting import SCALE, poll
from harness.waiting import run as run_on_loop

NAMES = ("ssh_localhost", "sftp_localhost", "http_localhost")
PAGE, COPY = random.Random(1).randbytes(1 << 20), random.Random(2).randbytes(8 << 20)
SSHD_CONFIG = """HostKey {home}/host_key
AuthorizedKeysFile {home}/login_key.pub
PidFile none
StrictModes no
UsePAM no
Subsystem sftp internal-sftp
"""


async def serve_page(reader, writer):
    await reader.readuntil(b"\r\n\r\n")
    writer.write(b"HTTP/1.0 200 OK\r\nContent-Length: %d\r\n\r\n" % len(PAGE) + PAGE)
    await writer.drain()
    writer.close()


class Tunnel:
    """Gateway, services and back end; `ports` lead to the gateway's services, by their names."""

    def __init__(self, launch, certificates, home):
        self.home, self.listen = home, free_port()
        self.ports, self.services = {name: free_port() for name in NAMES}, {}
        web, sshd = free_port(), free_port()
        run_on_loop(asyncio.start_server(serve_page, "127.0.0.1", web, backlog=64))
        offered = [{"type": name.split("_")[0].upper(), "name": name, "ip": "127.0.0.1",
                    "port": web if name == "http_localhost" else sshd} for name in NAMES]
        self.gateway = launch(demo={
            "cloud": self.listen,
            "config": {"gw_remoteaccess_cloud_host": HOST, "gw_remoteaccess_tls_type": 1},
            "files": {CA_FILE: certificates.authority, f"{CONFIG_DIR}/logger.conf": "level=1\n",
                      f"{CONFIG_DIR}/remote_terminal.json": json.dumps(offered)}})["demo"]
        self.start_back_end(*certificates.paths())
        self.start_sshd(sshd)
        self.gateway.log.wait("I", "handshake response code is 0!", seconds=10)

    def start_back_end(self, certificate, key):
        device = {key: CONFIG["gw_system_" + key.replace("_", "")]
                  for key in ("product_key", "device_name", "device_secret")}
        (self.home / "devices.json").write_text(json.dumps({"devices": [device]}))
        self.back_end = self.gateway.spawn_beside(
            "backend", BIN / "remote_access_backend", "--listen", f"127.0.0.1:{self.listen}",
            "--cert", certificate, "--key", key, "--devices", self.home / "devices.json",
            *[part for name in NAMES for part in ("--forward", f"{self.ports[name]}=dev1/{name}")])

    def start_sshd(self, port):
        """For an ordinary user in a sandbox: no privilege is needed, whoever runs the tests."""
        (self.home / "etc").mkdir()
        (self.home / "etc/passwd").write_text(f"operator:x:1000:1000::{self.home}:/bin/sh\n")
        (self.home / "sshd_config").write_text(SSHD_CONFIG.format(home=self.home))
        for key in ("host_key", "login_key"):
            subprocess.run(["ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-f", self.home / key],
                           check=True)
        self.gateway.spawn_beside(
            "sshd", "bwrap", "--die-with-parent", "--unshare-user", "--uid", 1000, "--gid", 1000,
            "--unshare-pid", "--ro-bind", "/usr", "/usr", "--symlink", "usr/bin", "/bin",
            "--symlink", "usr/lib", "/lib", "--symlink", "usr/lib64", "/lib64", "--proc", "/proc",
            "--dev", "/dev", "--ro-bind", self.home / "etc", "/etc", "--bind", self.home, self.home,
            "/usr/sbin/sshd", "-D", "-e", "-f", self.home / "sshd_config", "-p", port)
        poll(lambda: "Server listening" in self.gateway.log_beside("sshd"), 10, "sshd listens")

    def run(self, *command):
        done = subprocess.run(list(map(str, command)), capture_output=True, timeout=60 * SCALE,
                              check=False)
        assert done.returncode == 0, done.stderr.decode() + self.gateway.log_beside("backend")
        return done.stdout

    def login(self, program, *arguments):
        options = ("StrictHostKeyChecking=no", "UserKnownHostsFile=/dev/null", "BatchMode=yes")
        return self.run(program, "-F", "/dev/null", "-i", self.home / "login_key",
                        *[part for option in options for part in ("-o", option)], *arguments)


@pytest.fixture(scope="module")
def tunnel(launch, certificates, workspace):
    (workspace / "home").mkdir()
    tunnel = Tunnel(launch, certificates, workspace / "home")
    yield tunnel
    log = tunnel.gateway.log_beside("backend")
    assert tunnel.back_end.poll() is None and "Sanitizer" not in log, log


def test_ssh_command(tunnel):
    output = tunnel.login("ssh", "-p", tunnel.ports["ssh_localhost"], "operator@127.0.0.1",
                          "id -un; seq 1 20000")
    assert output.decode().split() == ["operator", *map(str, range(1, 20001))]


def test_sftp_both_ways(tunnel):
    up, there, back = (tunnel.home / name for name in ("up", "there", "back"))
    up.write_bytes(COPY)
    (tunnel.home / "batch").write_text(f"put {up} {there}\nget {there} {back}\n")
    tunnel.login("sftp", "-P", tunnel.ports["sftp_localhost"], "-b", tunnel.home / "batch",
                 "operator@127.0.0.1")
    assert there.read_bytes() == COPY and back.read_bytes() == COPY


@pytest.mark.parametrize("count", [1, 8])
def test_curl(tunnel, count):
    outputs = [tunnel.home / f"page-{n}" for n in range(count)]
    url = f"http://127.0.0.1:{tunnel.ports['http_localhost']}/"
    tunnel.run("curl", "-sS", "--fail", "--parallel", "--parallel-immediate",
               *[part for output in outputs for part in (url, "-o", output)])
    assert all(output.read_bytes() == PAGE for output in outputs)
