"""The cloud's broker, on loopback, and what goes through it."""
import subprocess

from .network import free_port
from .sandbox import BIN
from .waiting import poll


class Broker:
    """A mosquitto among these processes."""

    def __init__(self, processes):
        self.processes, self.port = processes, free_port()
        self._config = processes.directory / "mosquitto.conf"
        self._config.write_text(
            f"listener {self.port} 127.0.0.1\nallow_anonymous true\nuser root\n")
        self.start()

    def start(self):
        self.process = self.processes.start("broker", "mosquitto", "-c", self._config)
        poll(lambda: self.send("probe", b"up"), 10, lambda: self.processes.log("broker"))

    def stop(self):
        self.processes.stop("broker")

    def send(self, topic, payload):
        """A message from the cloud; true once the broker has it."""
        done = subprocess.run(["mosquitto_pub", "-h", "127.0.0.1", "-p", str(self.port), "-q", "1",
                               "-t", topic, "-s"], input=payload, capture_output=True, check=False)
        return done.returncode == 0

    def listen(self):
        """A client writes down whatever is sent from now on."""
        self.processes.start("heard", "mosquitto_sub", "-h", "127.0.0.1", "-p", self.port, "-t",
                             "#", "-v")
        poll(lambda: self.send("probe", b"?") and self.heard("probe", "?"), 10, "a client")

    def heard(self, topic, payload):
        """How many messages on this topic began like this payload."""
        return self.processes.log("heard").count(f"{topic} {payload}")

    def bridge(self, processes, address):
        """The bridge between this broker and a bus, among that one's processes."""
        processes.start("bridge", BIN / "gateway_mqtt_bridge", "--bus", address, "--host",
                        "127.0.0.1", "--port", self.port)
