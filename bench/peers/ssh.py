"""OpenSSH: `ssh -R` from the gateway to an sshd on the far side, all sessions on one connection."""
from harness.network import free_port
from harness.sshd import login, start_sshd

from processes import with_children


def start(place, *options):
    port = free_port()
    with place.far_side:
        start_sshd(place, place.directory, port)
    server = place.running["sshd"].pid
    gateway = place.start("ssh", *login(
        "ssh", place.directory, "-N", *options, "-o", "ExitOnForwardFailure=yes", "-p", port, "-R",
        f"127.0.0.1:{place.operator}:127.0.0.1:{place.service}", f"operator@{place.far_address}"))
    with place.far_side:
        place.wait_for_port(place.operator)
    return [gateway.pid], with_children(server)
