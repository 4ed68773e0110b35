"""Programs that run beside a test and end with it."""
import subprocess

from .waiting import poll


class ProcessGroup:
    """Each has a log of its own in the directory; they end together."""

    def __init__(self, directory):
        self.directory, self.running = directory, {}

    def start(self, name, *command):
        with open(self.directory / f"{name}.log", "ab") as log:
            self.running[name] = subprocess.Popen(
                ["setpriv", "--pdeathsig", "KILL", *map(str, command)],
                stdin=subprocess.DEVNULL, stdout=log, stderr=log)
        return self.running[name]

    def log(self, name):
        path = self.directory / f"{name}.log"
        return path.read_text(errors="replace") if path.exists() else ""

    def wait_for_line(self, name, text, count=1):
        poll(lambda: self.log(name).count(text) >= count, 10, lambda: f"{text}: {self.log(name)}")

    def stop(self, *names):
        for name in names or self.running:
            self.running[name].kill()
            self.running[name].wait()
