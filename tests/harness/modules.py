"""The modules that a daemon meets on a gateway's bus, real or not, and the broker of the cloud."""
import subprocess

import dbus.lowlevel

from .network import free_port
from .private_bus import Peer
from .sandbox import BIN, NAME
from .waiting import poll

BRIDGE, DONE = "iot.bridge.mqtt", '{"code":0}'


def start_watchdog(gateway):
    gateway.spawn_beside("watchdog", BIN / "gateway_watchdog", "--bus", gateway.address)


def check_watchdog(gateway):
    """Both threads are watched, and neither has ever been late."""
    def watched():
        log = gateway.log_beside("watchdog")
        return all(f": {thread} of {NAME} is watched, its time is 20 s" in log
                   for thread in ("mainThread", "remoteAccessProxyThread"))
    poll(watched, 10, lambda: f"both threads watched: {gateway.log_beside('watchdog')}")
    assert "has not been fed" not in gateway.log_beside("watchdog")


class Broker:
    """A mosquitto on loopback with a client that writes down whatever it is sent; both run beside
    a gateway, until that one stops."""

    def __init__(self, gateway):
        self.gateway, self.port = gateway, free_port()
        gateway.put("mosquitto.conf",
                    f"listener {self.port} 127.0.0.1\nallow_anonymous true\nuser root\n")
        self.start()
        gateway.spawn_beside("heard", "mosquitto_sub", "-h", "127.0.0.1", "-p", self.port, "-t",
                             "#", "-v")
        poll(lambda: self.send("probe", "?") and self.heard("probe", "?"), 10, "the broker's ear")

    def start(self):
        self.process = self.gateway.spawn_beside("broker", "mosquitto", "-c",
                                                 self.gateway.root / "mosquitto.conf")
        poll(lambda: self.send("probe", "up"), 10, lambda: self.gateway.log_beside("broker"))

    def stop(self):
        self.process.kill()
        self.process.wait()

    def send(self, topic, payload):
        """A message from the cloud; true once the broker has it."""
        done = subprocess.run(["mosquitto_pub", "-h", "127.0.0.1", "-p", str(self.port), "-q", "1",
                               "-t", topic, "-s"],
                              input=payload.encode(), capture_output=True, check=False)
        return done.returncode == 0

    def heard(self, topic, payload):
        """How many messages on this topic began like this payload."""
        return self.gateway.log_beside("heard").count(f"{topic} {payload}")

    def bridge(self, gateway):
        gateway.spawn_beside("bridge", BIN / "gateway_mqtt_bridge", "--bus", gateway.address,
                             "--host", "127.0.0.1", "--port", self.port)


class FakeBridge(Peer):
    """A bridge without a broker. The first calls are answered as the test says, where None leaves
    them unanswered; the others as a bridge would. It serves while somebody pumps."""

    def __init__(self, gateway, answers):
        self.answers, self.unanswered = iter(answers), []
        super().__init__(gateway.address, BRIDGE)

    def _receive(self, bus, message):
        if not isinstance(message, dbus.lowlevel.MethodCallMessage):
            return dbus.lowlevel.HANDLER_RESULT_NOT_YET_HANDLED
        self.received.append((message.get_member(), *message.get_args_list()))
        answer = next(self.answers, DONE)
        if answer is None:
            self.unanswered.append(message)
        else:
            self.answer(message, answer)
        return dbus.lowlevel.HANDLER_RESULT_HANDLED

    def answer(self, message, answer=DONE):
        reply = dbus.lowlevel.MethodReturnMessage(message)
        reply.append(answer)
        self.bus.send_message(reply)
