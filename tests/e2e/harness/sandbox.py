"""A gateway of its own for each daemon: files, accounts, processes, bus and configuration manager.

The daemon's paths are all fixed, so each one runs in a bubblewrap sandbox over a directory of the
test. The private bus and the configuration manager run beside the sandbox, on that directory's
socket. What the daemon logs lands in `stderr`, what it prints in `stdout`.
"""
import datetime
import json
import os
import pathlib
import re
import shutil
import signal
import subprocess
from dataclasses import dataclass

from .waiting import poll

REPOSITORY = pathlib.Path(__file__).resolve().parents[3]
BIN = pathlib.Path(os.environ.get("RA_BUILD_DIR", REPOSITORY / "build/release")).resolve() / "bin"
INSTALLED = "brimlock/gateway/build"
CONFIG_DIR, PID_FILE = f"{INSTALLED}/config", "tmp/brimlock/remote_terminal.pid"
CA_PATH = f"/{CONFIG_DIR}/ca.pem"
NAME, MANAGER = "iot.gateway.remote_access_daemon", "iot.gateway.config_manager"
SECRET = "kXw81-device-secret-of-the-tests"
IDENTITY = {"gw_system_productkey": "pk1", "gw_system_devicename": "dev1",
            "gw_system_devicesecret": SECRET}
TERMINATED, KILLED = 128 + signal.SIGTERM, 128 + signal.SIGKILL

_FILES = {
    "etc/passwd": "root:x:0:0::/root:/bin/sh\n",
    "etc/shadow": "root:*:19000:0:99999:7:::\n",
    "etc/group": "root:x:0:\n",
    "etc/hosts": "127.0.0.1 localhost local.test cloud.test\n",
    "etc/resolv.conf": "nameserver 127.0.0.1\n",
    "etc/nsswitch.conf": "passwd: files\nshadow: files\ngroup: files\nhosts: files dns\n",
    f"{CONFIG_DIR}/logger.conf": "level=0\n",
    f"{INSTALLED}/SPECIFICATION": "gateway standard\n",
    f"{INSTALLED}/VERSION": "1.2.3\n",
}
_SANITIZERS = {"ASAN_OPTIONS": "quarantine_size_mb=1:abort_on_error=0", "UBSAN_OPTIONS": "print_stacktrace=1",
               "TSAN_OPTIONS": f"suppressions={os.environ.get('RA_TSAN_SUPPRESSIONS', '')}"}
_LINE = re.compile(r"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3})Z ([DIWE]) remote_access_daemon "
                   r"([\w/.-]+\.(?:cpp|h)):\d+ (\w+): (.*)")


@dataclass
class Line:
    time: float
    level: str
    unit: str
    function: str
    text: str


class Log:
    """The daemon's log as it grows. What is no log line is kept in `strays`."""

    def __init__(self, path):
        self.path, self._offset = path, 0
        self._lines, self.strays = [], []

    @property
    def lines(self):
        with open(self.path, "rb") as file:
            file.seek(self._offset)
            whole = file.read().rpartition(b"\n")[0]
        if whole:
            self._offset += len(whole) + 1
            for text in whole.decode("utf-8", "surrogateescape").split("\n"):
                self._take(text)
        return self._lines

    def _take(self, text):
        found = _LINE.fullmatch(text)
        if not found:
            self.strays.append(text)
            return
        at = datetime.datetime.fromisoformat(found[1] + "+00:00").timestamp()
        self._lines.append(Line(at, *found.groups()[1:]))

    def mark(self):
        return len(self.lines)

    def find(self, level, text, after=0):
        """The lines with this level and this text: exact, or a compiled pattern for the whole of it."""
        fits = text.fullmatch if isinstance(text, re.Pattern) else text.__eq__
        return [line for line in self.lines[after:] if line.level == level and fits(line.text)]

    def wait(self, level, text, after=0, count=1, seconds=5):
        found = poll(lambda: (lines := self.find(level, text, after))[count - 1:] and lines, seconds,
                     lambda: f"{level} {text!r} (x{count}) in the log:\n{self.tail(after=after)}")
        return found[count - 1]

    def in_order(self, wanted, after=0):
        """The (level, text) pairs appear in this order, others may stand between them."""
        position = after
        for level, text in wanted:
            found = [i for i, line in enumerate(self.lines[position:], position)
                     if (line.level, line.text) == (level, text)]
            assert found, f"{level} {text!r} missing or out of order:\n{self.tail(after=after)}"
            position = found[0] + 1

    def tail(self, count=40, after=0):
        text = self.path.read_text(errors="replace").splitlines() if self.path.exists() else []
        return "\n".join(line[:400] for line in text[after:][-count:])


class Process:
    """One run of the daemon in a gateway's sandbox."""

    def __init__(self, gateway, tag, command):
        self.log, self.stdout = Log(gateway.root / f"stderr{tag}"), gateway.root / f"stdout{tag}"
        info, info_end = os.pipe()
        with open(self.log.path, "wb") as err, open(self.stdout, "wb") as out:
            self._bwrap = subprocess.Popen(
                [*gateway.sandbox(), "--info-fd", str(info_end), "--", *command],
                stdin=subprocess.DEVNULL, stdout=out, stderr=err, pass_fds=[info_end])
        os.close(info_end)
        with open(info, encoding="ascii") as file:
            text = file.read()
        assert text, f"the sandbox did not start: {self.log.path.read_text()}"
        self._init = json.loads(text)["child-pid"]
        self.pid = None  # the daemon's process id outside the sandbox

    def find_pid(self):
        def daemon():
            try:
                children = pathlib.Path(f"/proc/{self._init}/task/{self._init}/children").read_text()
                pid = int(children.split()[0])
                return os.readlink(f"/proc/{pid}/exe").endswith("/remote_access_daemon") and pid
            except (OSError, IndexError):
                return self.status is not None and -1
        self.pid = poll(daemon, 10, lambda: f"daemon started:\n{self.log.tail()}")

    @property
    def status(self):
        return self._bwrap.poll()

    def wait_exit(self, seconds=10):
        poll(lambda: self.status is not None, seconds, lambda: f"exit:\n{self.log.tail()}")
        return self.status

    def signal(self, number):
        os.kill(self.pid, number)

    def terminate(self):
        """SIGTERM ends the daemon by its default action."""
        if self.status is None:
            self.signal(signal.SIGTERM)
            try:
                self.wait_exit()
            finally:
                self._bwrap.kill()
        return self.status


class Gateway:
    """Configuration, files and processes of one gateway. start_gateways() brings it up."""

    def __init__(self, directory, name, cloud=None, **options):
        self.name, self.root = name, directory / name
        self.config = {
            **IDENTITY, "gw_remoteaccess_cert_path": CA_PATH,
            "gw_remoteaccess_cloud_host": "127.0.0.1", "gw_remoteaccess_cloud_port": cloud or 1,
            "gw_remoteaccess_tls_type": 0, "gw_remoteaccess_debug_switch": 0,
            "gw_remoteaccess_trans_timeout": 500, "gw_system_cloud_long_connection": 0,
            "gw_remoteaccess_tcp_keepalive_period": 5, "gw_remoteaccess_ping_period": 80,
            **options.get("config", {})}
        self.with_bus = options.get("bus", True)
        self.with_manager = self.with_bus and options.get("manager", True)
        self.isolated = options.get("isolated", False)      # a network without a default route
        self.watched = options.get("watched", False)        # record the watchdog feeds
        self.command = options.get("command", [f"/{INSTALLED}/bin/remote_access_daemon"])
        self.expected_statuses = {TERMINATED, *options.get("ends", [])}
        self.expected_strays = options.get("strays", "(?!)")
        self._beside, self.daemon = {}, None
        for path in ("tmp/var/run/mbusd", f"{INSTALLED}/bin"):
            (self.root / path).mkdir(parents=True)
        for path, content in {**_FILES, **options.get("files", {})}.items():
            self.put(path, content)
        options.get("prepare", lambda root: None)(self.root)

    def put(self, path, content):
        (self.root / path).parent.mkdir(parents=True, exist_ok=True)
        (self.root / path).write_bytes(content if isinstance(content, bytes) else content.encode())

    @property
    def log(self):
        return self.daemon.log

    @property
    def bus(self):
        return f"unix:path={self.root}/tmp/var/run/mbusd/mbusd_socket"

    def sandbox(self):
        """The bwrap command up to its own options' end."""
        command = ["bwrap", "--die-with-parent", "--unshare-pid", "--unshare-ipc", "--unshare-uts",
                   "--ro-bind", "/usr", "/usr", "--proc", "/proc", "--dev", "/dev", "--clearenv",
                   "--ro-bind", f"{self.root}/etc", "/etc", "--bind", f"{self.root}/tmp", "/tmp",
                   "--bind", f"{self.root}/brimlock", "/brimlock", "--ro-bind", BIN, f"/{INSTALLED}/bin"]
        for name in ("bin", "sbin", "lib", "lib64"):
            if os.path.exists(f"/usr/{name}"):
                command += ["--symlink", f"usr/{name}", f"/{name}"]
        for name, value in _SANITIZERS.items():
            command += ["--setenv", name, value]
        if os.environ.get("RA_TSAN_SUPPRESSIONS"):
            command += ["--ro-bind", *[os.environ["RA_TSAN_SUPPRESSIONS"]] * 2]
        return command + ["--unshare-net"] * self.isolated

    def _spawn_beside(self, name, *command):
        with open(self.root / f"{name}.log", "ab") as log:
            self._beside[name] = subprocess.Popen(
                ["setpriv", "--pdeathsig", "KILL", *map(str, command)],
                stdin=subprocess.DEVNULL, stdout=log, stderr=log)

    def start_bus(self):
        socket = self.root / "tmp/var/run/mbusd/mbusd_socket"
        socket.unlink(missing_ok=True)
        self._spawn_beside("bus", "dbus-daemon", "--nofork", "--nopidfile", f"--address={self.bus}",
                           f"--config-file={REPOSITORY}/gateway/bus/mbusd.conf")

    def start_manager(self):
        self.wait_for_name("org.freedesktop.DBus")
        if not (self.root / "config.txt").exists():
            keys = (f"{key}={value}\n" for key, value in self.config.items() if value is not None)
            self.put("config.txt", "".join(keys))
        self._spawn_beside("manager", BIN / "gateway_config_manager", "--bus", self.bus,
                           "--file", self.root / "config.txt")
        if self.watched:
            self._spawn_beside("feeds", "dbus-monitor", "--address", self.bus,
                               "type='signal',interface='iot.gateway.watchdog'")
            poll(lambda: "NameAcquired" in self.feeds(), 5, "dbus-monitor listens")

    def stop_bus(self):
        for process in ("bus", "manager"):
            self._beside[process].kill()
            self._beside[process].wait()

    def feeds(self):
        return (self.root / "feeds.log").read_text()

    def spawn(self, tag=""):
        return Process(self, tag, self.command)

    def call(self, destination, method, *arguments, path=None, timeout_ms=3000):
        """A bus call with dbus-send: (status, what it printed)."""
        path = path or "/" + destination.replace(".", "/")
        done = subprocess.run(["dbus-send", f"--bus={self.bus}", f"--reply-timeout={timeout_ms}",
                               "--print-reply=literal", f"--dest={destination}", path, method, *arguments],
                              capture_output=True, text=True, check=False)
        return done.returncode, (done.stdout + done.stderr).strip()

    def wait_for_name(self, name, seconds=5):
        poll(lambda: self.call("org.freedesktop.DBus", "org.freedesktop.DBus.NameHasOwner",
                               f"string:{name}") == (0, "boolean true"), seconds,
             lambda: f"{name} on the bus of {self.name}")

    def stop(self):
        """End everything; returns what went wrong while it ran."""
        faults = []
        if self.daemon:
            status = self.daemon.terminate()
            if status not in self.expected_statuses:
                faults.append(f"the daemon ended with status {status}")
            lines = self.log.lines
            faults += [f"not a log line: {text}" for text in self.log.strays
                       if not re.fullmatch(self.expected_strays, text)]
            secret = str(self.config.get("gw_system_devicesecret"))
            faults += [f"the secret was logged: {line.text}" for line in lines if secret in line.text]
        for process in self._beside.values():
            process.kill()
            process.wait()
        return [f"{self.name}: {fault}" for fault in faults[:40]]


def start_gateways(gateways):
    """Bring several up side by side, each step for all of them before the next."""
    missing = [p for p in ("remote_access_daemon", "gateway_config_manager") if not (BIN / p).exists()]
    missing += [p for p in ("bwrap", "dbus-daemon", "dbus-send", "setpriv") if not shutil.which(p)]
    if missing:
        raise RuntimeError(f"not there: {', '.join(missing)} (programs of ours are looked for in {BIN})")
    for gateway in [gateway for gateway in gateways if gateway.with_bus]:
        gateway.start_bus()
    managed = [gateway for gateway in gateways if gateway.with_manager]
    for gateway in managed:
        gateway.start_manager()
    for gateway in managed:
        gateway.wait_for_name(MANAGER)
    for gateway in gateways:
        gateway.daemon = gateway.spawn()
    for gateway in gateways:
        gateway.daemon.find_pid()
