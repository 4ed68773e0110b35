"""OpenSSH: `ssh -R` from the gateway to an sshd on the far side, all sessions on one connection."""
import subprocess

from harness.network import free_port

SERVER = """HostKey {home}/host_key
AuthorizedKeysFile {home}/login_key.pub
PidFile none
StrictModes no
UsePAM no
"""
OPTIONS = ("BatchMode=yes", "StrictHostKeyChecking=no", "UserKnownHostsFile=/dev/null",
           "ExitOnForwardFailure=yes")


def start(place, *options):
    home, port = place.directory, free_port()
    for key in ("host_key", "login_key"):
        subprocess.run(["ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-f", home / key],
                       check=True)
    config = place.write("sshd_config", SERVER.format(home=home))
    (home / "etc").mkdir()
    place.write("etc/passwd", f"operator:x:1000:1000::{home}:/bin/sh\n")
    # As an ordinary user, so that no privilege is needed, whoever runs this.
    place.spawn("sshd", "bwrap", "--die-with-parent", "--unshare-user", "--uid", 1000, "--gid", 1000,
                "--ro-bind", "/usr", "/usr", "--symlink", "usr/bin", "/bin", "--symlink", "usr/lib",
                "/lib", "--symlink", "usr/lib64", "/lib64", "--proc", "/proc", "--dev", "/dev",
                "--ro-bind", home / "etc", "/etc", "--bind", home, home,
                "/usr/sbin/sshd", "-D", "-e", "-f", config, "-p", port)
    place.wait_for_port(port)
    gateway = place.spawn(
        "ssh", "ssh", "-F", "/dev/null", "-N", "-i", home / "login_key", *options,
        *[part for option in OPTIONS for part in ("-o", option)], "-p", port, "-R",
        f"127.0.0.1:{place.operator}:127.0.0.1:{place.service}", "operator@127.0.0.1")
    place.wait_for_port(place.operator)
    return gateway, 0  # the far side is several processes
