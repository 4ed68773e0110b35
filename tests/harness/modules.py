"""The modules that a daemon meets on a gateway's bus, real or not."""
import dbus.lowlevel

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


class FakeBridge(Peer):
    """A bridge without a broker. The first calls are answered as the test says, where None leaves
    them unanswered; the others as a bridge would. It serves while it is pumped."""

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
