"""An ssh server for an ordinary user in a sandbox: no privilege is needed."""
import subprocess

_CONFIG = """HostKey {home}/host_key
AuthorizedKeysFile {home}/login_key.pub
PidFile none
StrictModes no
UsePAM no
Subsystem sftp internal-sftp
"""
# Newer servers shut out an address whose logins fail; through a tunnel all come from the same one.
_NO_PENALTIES = "PerSourcePenalties no"
_OPTIONS = ("StrictHostKeyChecking=no", "UserKnownHostsFile=/dev/null", "BatchMode=yes")


def as_user(home, *options):
    """The command that runs others as an ordinary user who sees no more than this machine's
    programs, `home`, and what the options of bwrap add; `home`/etc is /etc there."""
    (home / "etc").mkdir(exist_ok=True)
    (home / "etc/passwd").write_text(f"operator:x:1000:1000::{home}:/bin/sh\n")
    return ["bwrap", "--die-with-parent", "--unshare-user", "--uid", 1000, "--gid", 1000,
            "--unshare-pid", "--ro-bind", "/usr", "/usr", "--symlink", "usr/bin", "/bin",
            "--symlink", "usr/lib", "/lib", "--symlink", "usr/lib64", "/lib64", "--proc", "/proc",
            "--dev", "/dev", "--ro-bind", home / "etc", "/etc", "--bind", home, home, *options]


def _knows(line):
    asked = subprocess.run(["/usr/sbin/sshd", "-t", "-f", "/dev/null", "-o", line], text=True,
                           capture_output=True, check=False)
    return "Bad configuration option" not in asked.stderr


def start_sshd(processes, home, port, *lines):
    """With more lines of its configuration."""
    if _knows(_NO_PENALTIES):
        lines += (_NO_PENALTIES,)
    (home / "sshd_config").write_text(
        _CONFIG.format(home=home) + "".join(f"{line}\n" for line in lines))
    for key in ("host_key", "login_key"):
        subprocess.run(["ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-f", home / key],
                       check=True)
    run_sshd(processes, home, port)


def run_sshd(processes, home, port):
    starts = processes.log("sshd").count("Server listening")
    processes.start(
        "sshd", *as_user(home), "/usr/sbin/sshd", "-D", "-e", "-f", home / "sshd_config", "-p",
        port)
    processes.wait_for_line("sshd", "Server listening", starts + 1)


def login(program, home, *arguments):
    """The command that logs in, or copies, with the user's key."""
    return [program, "-F", "/dev/null", "-i", str(home / "login_key"),
            *[part for option in _OPTIONS for part in ("-o", option)], *map(str, arguments)]
