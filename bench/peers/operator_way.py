"""The daemon's way with the operator's tool in front: `remote-access forward`, whose clients'
sockets go to the back end over its control socket, or whose bytes go over a WebSocket of its
interface. The far side's figures are the back end's alone. `options` are of `forward`. With a
`keeper` the sessions are kept ones."""
import hashlib
import json

from harness.network import free_port
from harness.sandbox import BIN

from . import daemon

TOKEN = "rat_" + "b" * 43
OPERATORS = {
    "operators": [{"name": "bench", "accounts": ["root"], "tokens": [
        {"label": "bench", "expires": "2099-01-01T00:00:00Z",
         "sha256": hashlib.sha256(TOKEN.encode()).hexdigest()}]}],
    "grants": [{"name": "bench", "who": ["bench"], "devices": ["*"], "services": ["*"],
                "verbs": ["list", "connect"]}]}


def start(place, carrier, *options, keeper=False):
    operators = place.write("operators.json", json.dumps(OPERATORS))
    operators.chmod(0o600)
    api, port = free_port(), place.operator
    place.operator = free_port()  # the back end's own port, which is not used here
    certificate, key = place.tls.paths("address")
    pids = daemon.start(place, 1, "--control", place.directory / "control", "--operators",
                        operators, "--api", f"127.0.0.1:{api}", "--api-cert", certificate,
                        "--api-key", key, "--api-rate", 1000000, keeper=keeper)
    place.operator = port
    settings = place.directory / "remote-access"
    settings.mkdir(mode=0o700)
    url = f"https://127.0.0.1:{api}"
    authority = place.write("ca.pem", place.tls.authority)
    servers = place.write("remote-access/servers.json", json.dumps(
        {"default": url, "servers": {url: {"token": TOKEN, "ca": str(authority)}}}))
    servers.chmod(0o600)
    way = {"socket": ("--control", place.directory / "control"), "https": ("--server", url)}
    with place.far_side:
        place.start("forward", "env", f"XDG_CONFIG_HOME={place.directory}", BIN / "remote-access",
                    *way[carrier], "forward", *options, "dev1/bench", port)
        place.wait_for_port(port)
    return pids
