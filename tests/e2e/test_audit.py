"""The audit of a real run: every line against its schema, a crash, rotation, and readers that do
not read."""
import fcntl
import json
import os
import signal
import ssl
import subprocess

import jsonschema
import pytest
from websockets.legacy import client

from harness.backend import start_back_end
from harness.network import free_port
from harness.sandbox import BIN, PASSWORD, REPOSITORY
from harness.waiting import SCALE, poll
from harness.waiting import run as run_on_loop
from test_demo_path import Tunnel

SCHEMA = json.loads((REPOSITORY / "docs/audit.schema.json").read_text())
# What only other conditions than this run's cause.
ELSEWHERE = {"device_duplicate", "device_replaced", "denied", "left_out", "sign_in_refused",
             "host_key_first", "host_key_changed", "host_key_forget", "ssh_certificate",
             "token_make", "token_revoke"}


async def send_nonsense(port):
    """A WebSocket client that is no device."""
    context = ssl.create_default_context()
    context.check_hostname, context.verify_mode = False, ssl.CERT_NONE
    async with client.connect(f"wss://127.0.0.1:{port}/", ssl=context) as stranger:
        await stranger.send(b"nonsense\r\n\r\n")
        await stranger.recv()


def verify(*files, **options):
    return subprocess.run([BIN / "remote-access", "audit", "verify", "--json", *files],
                          capture_output=True, check=False, timeout=30, **options)


def test_readers_that_do_not_read(certificates, tmp_path):
    """Standard output (the audit) and standard error are full pipes from the start."""
    (tmp_path / "devices").write_text(json.dumps({"devices": [
        {"product_key": "p", "device_name": "d", "device_secret": "s"}]}))
    pipes = [os.pipe() for _ in range(2)]
    for _, end in pipes:
        fcntl.fcntl(end, fcntl.F_SETFL, os.O_NONBLOCK)
        with pytest.raises(BlockingIOError):
            while True:
                os.write(end, b"\n" * 4096)
        fcntl.fcntl(end, fcntl.F_SETFL, 0)
    pem, key = certificates.paths()
    command = [BIN / "remote_access_backend", "--listen", f"127.0.0.1:{free_port()}", "--cert", pem,
               "--key", key, "--devices", tmp_path / "devices", "--control", tmp_path / "control"]
    with subprocess.Popen(command, stdout=pipes[0][1], stderr=pipes[1][1]) as back_end:
        try:
            def status():
                done = subprocess.run([BIN / "remote-access", "--control", tmp_path / "control",
                                       "status", "--json"], capture_output=True, check=False,
                                      timeout=10)
                return done.stdout if b'"audit_failing"' in done.stdout else None

            poll(status, 10, "an answer")
            for _ in range(50):
                back_end.send_signal(signal.SIGHUP)
                assert status()
            back_end.terminate()
            assert back_end.wait(5 * SCALE) == 0
        finally:
            back_end.kill()
            for end in (end for pipe in pipes for end in pipe):
                os.close(end)


@pytest.fixture(scope="module")
def tunnel(launch, certificates, workspace):
    (workspace / "audit-home").mkdir()
    return Tunnel(launch, certificates, workspace / "audit-home")


def test_lines_of_a_run(tunnel, certificates):
    """All events in a run with rotation and a crash, against the schema and the chain. The last
    test: it leaves the daemon without a back end."""
    audit, old = tunnel.home / "audit", tunnel.home / "audit.1"

    def events(path=audit):
        return [json.loads(line).get("event") for line in path.read_text().splitlines()
                if line.endswith("}")]

    url = f"http://127.0.0.1:{tunnel.ports['http_localhost']}/"
    tunnel.run("curl", "-sS", "--fail", "-o", "/dev/null", url)
    run_on_loop(send_nonsense(tunnel.listen))
    tunnel.operate("verify", "dev1", "root", "--password-stdin", input=PASSWORD)
    assert tunnel.operate("connect", "dev1/nothing", stdin=subprocess.DEVNULL)[0] == 1
    with subprocess.Popen(tunnel.tool("connect", "dev1/ssh_localhost"), stdin=subprocess.PIPE,
                          stdout=subprocess.PIPE) as session:
        assert session.stdout.read(4) == b"SSH-"
        audit.rename(old)
        tunnel.back_end.send_signal(signal.SIGHUP)
        poll(lambda: audit.exists() and "reload" in events(), 5, "the new file")
        assert events()[:2] == ["continued", "session_open"]
        number = json.loads(audit.read_text().splitlines()[1])["session"]
        assert tunnel.operate("close", number)[0] == 0
        assert session.wait(10 * SCALE) == 1
    assert tunnel.operate("disconnect", "dev1")[0] == 0
    poll(lambda: "device_connected" in events(), 30, "the device comes back")

    with subprocess.Popen(tunnel.tool("connect", "dev1/ssh_localhost"), stdin=subprocess.PIPE,
                          stdout=subprocess.PIPE) as session:
        assert session.stdout.read(4) == b"SSH-"
        number = json.loads(audit.read_text().splitlines()[-1])["session"]
        tunnel.back_end.kill()
        tunnel.back_end.wait()
        with audit.open("a", encoding="utf-8") as torn:
            torn.write('{"seq":1000,"ti')
    tunnel.back_end = start_back_end(
        tunnel.gateway, ("127.0.0.1", tunnel.listen), certificates.paths(), "--audit", audit)
    poll(lambda: "session_interrupted" in events(), 5, "the session is closed")
    tunnel.back_end.terminate()
    assert tunnel.back_end.wait(10 * SCALE) == 0

    validator = jsonschema.Draft202012Validator(SCHEMA)
    seen = set()
    for path in old, audit:
        for line in path.read_text().splitlines():
            if line == '{"seq":1000,"ti':
                continue
            validator.validate(json.loads(line))
            seen.add(json.loads(line)["event"])
    assert seen == set(SCHEMA["properties"]["event"]["enum"]) - ELSEWHERE
    interrupted = [json.loads(line) for line in audit.read_text().splitlines()
                   if "session_interrupted" in line]
    assert [line["session"] for line in interrupted] == [number]

    done = verify(old, audit)
    result = json.loads(done.stdout)
    assert (done.returncode, result["good"], len(result["torn"])) == (0, True, 1), result
    content = audit.read_bytes()
    audit.write_bytes(content.replace(b'"whole":false', b'"whole":true ', 1))
    line = content[:content.index(b'"whole":false')].count(b"\n") + 1
    done = verify(old, audit)
    first = json.loads(done.stdout)["first"]
    assert (done.returncode, first["line"], first["fault"]) == (1, line, "changed")
    assert verify("-", input=old.read_bytes() + content).returncode == 0
    assert verify(audit, old).returncode == 1 and verify().returncode == 2
