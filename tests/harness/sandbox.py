"""A gateway of its own for each daemon: files, accounts, processes, bus, configuration manager.

The daemon's paths are all fixed, so each one runs in a bubblewrap sandbox over a directory of the
test. The private bus and the configuration manager run beside the sandbox, on that directory's
socket. `stderr` gets the daemon's log, `stdout` its output.
"""
import datetime
import json
import os
import pathlib
import re
import signal
import subprocess
from dataclasses import dataclass

from .processes import ProcessGroup
from .tls import HOST
from .waiting import poll

REPOSITORY = pathlib.Path(__file__).resolve().parents[2]
BIN = pathlib.Path(os.environ.get("RA_BUILD_DIR", REPOSITORY / "build/release")).resolve() / "bin"
INSTALLED = "brimlock/gateway/build"
CONFIG_DIR, PID_FILE = f"{INSTALLED}/config", "tmp/brimlock/remote_terminal.pid"
CA_FILE, SOCKET = f"{CONFIG_DIR}/ca.pem", "tmp/var/run/mbusd/mbusd_socket"
PROGRAM = f"/{INSTALLED}/bin/remote_access_daemon"
# An emulator for another machine's programs, with its arguments; the last is the folder that has
# the libraries.
EMULATOR = tuple(os.environ.get("RA_EMULATOR", "").split())
COMMAND = (*EMULATOR, PROGRAM)
NAME, MANAGER = "iot.gateway.remote_access_daemon", "iot.gateway.config_manager"
SECRET = "kXw81-device-secret-of-the-tests"
PASSWORD = "correct horse"  # of accounts
TERMINATED = 128 + signal.SIGTERM
CONFIG = {
    "gw_system_productkey": "pk1", "gw_system_devicename": "dev1", "gw_system_devicesecret": SECRET,
    "gw_remoteaccess_cert_path": f"/{CA_FILE}", "gw_remoteaccess_cloud_host": "127.0.0.1",
    "gw_remoteaccess_cloud_port": 1, "gw_remoteaccess_tls_type": 0,
    "gw_remoteaccess_debug_switch": 0, "gw_remoteaccess_trans_timeout": 500,
    "gw_system_cloud_long_connection": 0, "gw_remoteaccess_tcp_keepalive_period": 5,
    "gw_remoteaccess_ping_period": 80}
TLS = {"gw_remoteaccess_cloud_host": HOST, "gw_remoteaccess_tls_type": 1}
FILES = {
    "etc/passwd": "root:x:0:0::/root:/bin/sh\n",
    "etc/shadow": "root:*:19000:0:99999:7:::\n",
    "etc/hosts": "127.0.0.1 localhost local.test cloud.test eu.cloud.test\n",
    "etc/resolv.conf": "nameserver 127.0.0.1\n",
    "etc/nsswitch.conf": "passwd: files\nshadow: files\nhosts: files dns\n",
    f"{INSTALLED}/SPECIFICATION": "gateway standard\n",
    f"{INSTALLED}/VERSION": "1.2.3\n"}
os.umask(0o022)  # whose folders others may change gets no secret
_LINE = re.compile(r"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3})Z ([DIWE]) remote_access_daemon "
                   r"[\w/.-]+\.(?:cpp|h):\d+ \w+: (.*)")


@dataclass
class Line:
    time: float
    level: str
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
        self._offset += len(whole) + 1 if whole else 0
        for text in whole.decode("utf-8", "surrogateescape").split("\n") if whole else ():
            if found := _LINE.fullmatch(text):
                at = datetime.datetime.fromisoformat(found[1] + "+00:00").timestamp()
                self._lines.append(Line(at, found[2], found[3]))
            else:
                self.strays.append(text)
        return self._lines

    def mark(self):
        return len(self.lines)

    def find(self, level, text, after=0):
        """The lines with this level and text: the exact one, or a pattern for the whole of it."""
        fits = text.fullmatch if isinstance(text, re.Pattern) else text.__eq__
        return [line for line in self.lines[after:] if line.level == level and fits(line.text)]

    def wait(self, level, text, after=0, count=1, seconds=5):
        found = poll(lambda: (lines := self.find(level, text, after))[count - 1:] and lines,
                     seconds, lambda: f"{level} {text!r} (x{count}) in the log")
        return found[count - 1]

    def in_order(self, wanted, after=0):
        """The (level, text) pairs appear in this order; others may be between them."""
        rest = iter([(line.level, line.text) for line in self.lines[after:]])
        for pair in wanted:
            assert pair in rest, f"{pair} missing in the log, or out of order"

    def tail(self, count=40):
        return "\n".join(line[:300] for line in
                         self.path.read_text(errors="replace").splitlines()[-count:])


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
        assert text, f"the sandbox did not start: {self.log.tail()}"
        init = json.loads(text)["child-pid"]
        self._children = pathlib.Path(f"/proc/{init}/task/{init}/children")
        self.pid = None  # the daemon's process id outside the sandbox

    def find_pid(self):
        def daemon():
            try:
                pid = int(self._children.read_text().split()[0])
                return os.readlink(f"/proc/{pid}/exe") == COMMAND[0] and pid
            except (OSError, IndexError):
                return self.status is not None and -1
        self.pid = poll(daemon, 10, "the daemon's process")

    @property
    def status(self):
        return self._bwrap.poll()

    def wait_exit(self, seconds=10):
        poll(lambda: self.status is not None, seconds, "the daemon's end")
        return self.status

    def terminate(self):
        """SIGTERM ends the daemon by its default action."""
        if self.status is None:
            os.kill(self.pid, signal.SIGTERM)
            try:
                self.wait_exit()
            finally:
                self._bwrap.kill()
        return self.status


class Gateway:
    """Configuration, files and processes of one gateway; start_gateways() brings it up.

    config, files  what differs from the usual; None leaves a key out
    authority      the certificate (text) that it trusts; the channel uses TLS then
    services       the elements of its service list file
    level          of the log
    bus, manager   whether they are there from the start
    watched        the watchdog feeds are recorded
    command        what to run instead of the daemon itself
    binaries       the folder of the daemon, the back end and the gateway's modules
    system         the root whose /usr the daemon sees
    prepare        called with the root directory before anything starts
    ends, strays   statuses and a pattern of stray lines to be expected
    """

    def __init__(self, directory, name, cloud=1, config=(), files=(), authority=None,
                 services=None, level=0, bus=True, manager=True,
                 watched=False, command=COMMAND, binaries=BIN, system="", prepare=None,
                 ends=(), strays="(?!)"):
        self.name, self.root, self.command = name, directory / name, command
        self.binaries, self.system = binaries, system
        self.config = {**CONFIG, "gw_remoteaccess_cloud_port": cloud, **(TLS if authority else {}),
                       **dict(config)}
        given = {CA_FILE: authority, f"{CONFIG_DIR}/logger.conf": f"level={level}\n",
                 f"{CONFIG_DIR}/remote_terminal.json":
                 None if services is None else json.dumps(services, ensure_ascii=False)}
        self.bus, self.manager, self.watched = bus, manager and bus, watched
        self._ends, self._strays = {TERMINATED, *ends}, strays
        self.beside, self.daemon = ProcessGroup(self.root), None
        (self.root / SOCKET).parent.mkdir(parents=True)
        for path, content in {**FILES, **given, **dict(files)}.items():
            if content is not None:
                self.put(path, content)
        if prepare:
            prepare(self.root)

    def put(self, path, content):
        (self.root / path).parent.mkdir(parents=True, exist_ok=True)
        (self.root / path).write_text(content)

    @property
    def log(self):
        return self.daemon.log

    @property
    def address(self):
        return f"unix:path={self.root / SOCKET}"

    def sandbox(self):
        """The bwrap command up to its own options' end."""
        return ["bwrap", "--die-with-parent", "--unshare-pid", "--unshare-ipc", "--unshare-uts",
                "--ro-bind", f"{self.system}/usr", "/usr", "--symlink", "usr/bin", "/bin",
                "--symlink", "usr/lib", "/lib", "--symlink", "usr/lib64", "/lib64",
                "--proc", "/proc", "--dev", "/dev",
                "--ro-bind", f"{self.root}/etc", "/etc", "--bind", f"{self.root}/tmp", "/tmp",
                "--bind", f"{self.root}/brimlock", "/brimlock", "--ro-bind", self.binaries,
                f"/{INSTALLED}/bin", "--clearenv", "--setenv", "ASAN_OPTIONS",
                "quarantine_size_mb=1", *(("--ro-bind", *EMULATOR[-1:] * 2) if EMULATOR else ())]

    def spawn_beside(self, name, *command):
        """Run a program until stop(); its output is log_beside(name)."""
        return self.beside.start(name, *command)

    def log_beside(self, name):
        return self.beside.log(name)

    def start_bus(self, configuration="devgateway/bus/mbusd.conf", wrapper=()):
        (self.root / SOCKET).unlink(missing_ok=True)
        self.spawn_beside("bus", *wrapper, "dbus-daemon", "--nofork", "--nopidfile", "--address",
                           self.address, "--config-file", REPOSITORY / configuration)

    def start_manager(self):
        self.wait_for_name("org.freedesktop.DBus")
        if not (self.root / "config.txt").exists():
            keys = (f"{key}={value}\n" for key, value in self.config.items() if value is not None)
            self.put("config.txt", "".join(keys))
        self.spawn_beside("manager", self.binaries / "gateway_config_manager",
                           "--bus", self.address, "--file", self.root / "config.txt")
        if self.watched:
            self.spawn_beside("feeds", "dbus-monitor", "--address", self.address,
                               "type='signal',interface='iot.gateway.watchdog'")
            poll(lambda: "NameAcquired" in self.log_beside("feeds"), 5, "dbus-monitor listens")

    def stop_bus(self):
        self.beside.stop("bus", "manager")

    def spawn(self, tag=""):
        return Process(self, tag, self.command)

    def call(self, destination, method, *arguments, path=None, timeout_ms=3000):
        """A bus call with dbus-send: (status, what it printed)."""
        path = path or "/" + destination.replace(".", "/")
        done = subprocess.run(
            ["dbus-send", f"--bus={self.address}", f"--reply-timeout={timeout_ms}",
             "--print-reply=literal", f"--dest={destination}", path, method, *arguments],
            capture_output=True, text=True, check=False)
        return done.returncode, (done.stdout + done.stderr).strip()

    def wait_for_name(self, name):
        poll(lambda: self.call("org.freedesktop.DBus", "org.freedesktop.DBus.NameHasOwner",
                               f"string:{name}") == (0, "boolean true"), 5, f"{name} on the bus")

    def _betrayals(self):
        """Secrets and raw control bytes in what the daemon's runs have written."""
        secret = self.config["gw_system_devicesecret"] or SECRET
        unfit = re.compile(rf"{re.escape(secret)}|{PASSWORD}|\$(?:6|y)\$\w{{8}}|[\0-\x1f\x7f]")
        for path in sorted(self.root.glob("std*")):
            for line in path.read_bytes().decode("latin-1").split("\n"):
                if found := unfit.search(line):
                    yield f"{found[0]!r} in {path.name}: {line[:300]}"

    def stop(self):
        """End everything; returns what went wrong while it ran."""
        faults = []
        if self.daemon and self.daemon.pid:
            status = self.daemon.terminate()
            if status not in self._ends:
                faults.append(f"the daemon ended with status {status}")
            faults += self._betrayals()
            faults += [f"not a log line: {text}" for text in self.log.strays
                       if not re.fullmatch(self._strays, text)]
        self.beside.stop()
        return [f"{self.name}: {fault}" for fault in faults[:40]]


def start_gateways(gateways):
    """Bring several up side by side, each step for all of them before the next."""
    for program in ("remote_access_daemon", "gateway_config_manager"):
        for path in {gateway.binaries / program for gateway in gateways}:
            assert path.exists(), f"not built: {path} (RA_BUILD_DIR says where)"
    for gateway in gateways:
        if gateway.bus:
            gateway.start_bus()
    managed = [gateway for gateway in gateways if gateway.manager]
    for gateway in managed:
        gateway.start_manager()
    for gateway in managed:
        gateway.wait_for_name(MANAGER)
    for gateway in gateways:
        gateway.daemon = gateway.spawn()
    for gateway in gateways:
        gateway.daemon.find_pid()
