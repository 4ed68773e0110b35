"""The MQTT bridge between a real bus and a real broker."""
import signal

import pytest

from harness.broker import Broker
from harness.private_bus import Peer, Processes, pump
from harness.waiting import SCALE, poll

BRIDGE, SUBSCRIBER, TOPIC = "iot.bridge.mqtt", "iot.gateway.tester", "/sys/pk1/dev1/edge"
DONE, SENSELESS, NOT_CONNECTED, _, NO_ANSWER = (f'{{"code":{code}}}' for code in range(5))
SUBSCRIBE_PATIENCE, PATIENCE = 1, 0.5  # seconds that the daemon waits for an answer


class Place(Processes):
    """A bus, a broker, a bridge between them, and a subscriber."""

    def __init__(self, directory):
        super().__init__(directory, f"unix:path={directory}/bus", "devgateway/bus/mbusd.conf")
        self.sent, self.broker = set(), Broker(self)
        self.broker.bridge(self, self.address)
        self.peer = Peer(self.address, SUBSCRIBER)
        self.wait_for_line("bridge", "connected to the broker")
        assert self.subscribe() == DONE

    def ask(self, member, *arguments, seconds=PATIENCE):
        return self.peer.call(BRIDGE, member, "ssi"[:len(arguments)], *arguments, seconds=seconds)

    def subscribe(self, topic=TOPIC):
        return self.ask("subscribe", topic, SUBSCRIBER, 0, seconds=SUBSCRIBE_PATIENCE)

    def arrives(self, payload):
        """Sends a payload until it is delivered; what else was delivered is returned, but for
        copies of what an earlier call has sent more than once."""
        received, event = self.peer.received, ("subscribe_event", TOPIC, payload)
        self.sent.add(payload)
        poll(lambda: self.broker.send(TOPIC, payload.encode()) and pump() or event in received,
             15, payload)
        others = [item[2] for item in received if item[2] not in self.sent]
        received.clear()
        return others


@pytest.fixture(scope="module")
def place(workspace):
    (workspace / "bridge").mkdir()
    made = Place(workspace / "bridge")
    yield made
    made.stop()


def test_carries_messages_both_ways(place):
    place.broker.send(TOPIC, b'{"status":\xff}')  # what the bus cannot carry is dropped
    place.broker.send(TOPIC, b"1\x002")
    assert not place.arrives('{"status":1}')
    assert place.ask("publish", TOPIC, "from the gateway: \u00e4", 0) == DONE
    assert place.arrives("last") == ["from the gateway: \u00e4"]


@pytest.mark.parametrize("call", [
    ("subscribe", "", SUBSCRIBER, 0), ("subscribe", "a/#/b", SUBSCRIBER, 0),
    ("subscribe", "a\x01", SUBSCRIBER, 0), ("subscribe", "a", ":1.1", 0),
    ("subscribe", "a", SUBSCRIBER, 3), ("publish", "", "x", 0), ("publish", "a/#", "x", 0),
    ("publish", "a", "x", -1), ("publish", "a", "x" * 262145, 0)])
def test_refuses_what_makes_no_sense(place, call):
    assert place.ask(*call) == SENSELESS


def test_a_frozen_broker_holds_up_nobody(place):
    place.broker.process.send_signal(signal.SIGSTOP)
    calls = [place.peer.begin(BRIDGE, "publish", "ssi", TOPIC, text, 0, seconds=PATIENCE)
             for text in "1234"]
    answers = [place.subscribe("another"), *map(place.peer.wait, calls)]
    place.broker.process.send_signal(signal.SIGCONT)
    assert answers == [NO_ANSWER] * 5
    place.arrives("after the frost")


def test_subscribes_again_when_the_broker_is_back(place):
    place.broker.stop()
    poll(lambda: place.subscribe() == NOT_CONNECTED, 10, "the broker is missed")
    for call in (("publish", TOPIC, "lost", 1), ("open_cloud_channel",)):
        assert place.ask(*call) == NOT_CONNECTED
    place.broker.start()
    assert not place.arrives("again")


def test_a_closed_channel_stays_closed_until_it_is_opened(place):
    assert [place.ask("close_cloud_channel"), place.subscribe()] == [DONE, NOT_CONNECTED]
    poll(lambda: place.ask("open_cloud_channel") == DONE, 10, "open")
    assert not place.arrives("opened")


def test_ends_with_a_status_that_tells_why(place):
    place.running["bridge"].terminate()
    assert place.running["bridge"].wait(10 * SCALE) == 0
    place.broker.bridge(place, place.address)
    place.wait_for_line("bridge", "bridging the bus at", 2)
    place.stop("bus")
    assert place.running["bridge"].wait(10 * SCALE) == 1
    assert "serving the bus failed: " in place.log("bridge").splitlines()[-1]
