"""A back end that the tests script: it shares no code with the daemon or the reference back end.

Every message that a gateway sends is recorded and compared with the exact layout. The server
runs on one asyncio thread; the methods below are for the tests' thread.
"""
import itertools
import re
import time
from dataclasses import dataclass

import websockets
from websockets.frames import Frame, Opcode
from websockets.legacy import server

from .network import free_port
from .waiting import LOOP, poll, run

RESPONSE, HANDSHAKE, NEW_SESSION, RELEASE, VERIFY = 0, 1, 4, 5, 6
DATA_UP, DATA_DOWN, PING, PONG = 21, 22, 256, 257
HANDSHAKE_ID = "msg_id_for_handshake"
MESSAGE_LIMIT, UP_LIMIT = 51200, 50172

_HEADER = re.compile(rb'\{"msg_type": (\d+),"payload_len": (\d+),"msg_id": "([^"]*)",'
                     rb'"timestamp":(\d+),"token":"([^"]*)"\}\r\n\r\n')
_ANSWER = re.compile(r'\{"code": (\d+), "message": "([^"]*)"\}\r\n\r\n(.*)', re.DOTALL)
_ids = (f"id-{n}" for n in itertools.count())

@dataclass
class Message:
    """One message of the gateway, taken apart."""
    type: int
    id: str
    token: str
    timestamp: int
    payload: bytes

    @classmethod
    def parse(cls, raw):
        found = _HEADER.match(raw) if isinstance(raw, bytes) else None
        if not found or len(raw) != found.end() + int(found[2]):
            raise ValueError(f"not a message: {raw[:300]!r}")
        if abs(int(found[4]) - time.time()) > 60:
            raise ValueError(f"timestamp is not the current time: {raw[:300]!r}")
        msg_id, token = (text.decode(errors="replace") for text in found.group(3, 5))
        return cls(int(found[1]), msg_id, token, int(found[4]), raw[found.end():])

    @property
    def answer(self):
        """(code, message, second part) of a response."""
        found = _ANSWER.fullmatch(self.payload.decode())
        assert found, f"not a response payload: {self.payload!r}"
        return int(found[1]), found[2], found[3]


def header(msg_type, payload_len=0, msg_id="m", token=""):
    """A header as the back end writes it: not the gateway's spacing, the keys in another order."""
    return (f'{{"msg_id":"{msg_id}", "token":"{token}","msg_type":{msg_type}, '
            f'"timestamp":{int(time.time())}, "payload_len":{payload_len} }}\r\n\r\n').encode()


def new_session_request(port, ip="127.0.0.1", name="test", kind="TCP"):
    return (f'{{"service_type":"{kind}","service_name":"{name}","service_ip":"{ip}",'
            f'"service_port":{port}}}').encode()


class Channel:
    """One WebSocket connection of a gateway."""

    def __init__(self, ws, path):
        self.ws, self.path = ws, path
        self.handshake = None
        self.unread = []   # messages that no expect() has taken yet
        self.errors = []   # what broke the layout
        self.sessions = set()

    def arrived(self, raw):
        try:
            message = Message.parse(raw)
        except ValueError as error:
            self.errors.append(str(error))
            return None
        if message.type == HANDSHAKE and not self.handshake:
            self.handshake = message
        else:
            self.unread.append(message)
        return message.type

    def send_raw(self, *pieces):
        """One WebSocket message, in as many fragments as there are pieces."""
        run(self.ws.send(pieces[0] if len(pieces) == 1 else list(pieces)))

    def send(self, msg_type, payload=b"", msg_id="m", token=""):
        self.send_raw(header(msg_type, len(payload), msg_id, token) + payload)

    def send_at_once(self, *messages):
        """Several messages, each (type, payload, id, token), in one write to the socket."""
        self.transport("write", b"".join(
            Frame(Opcode.BINARY, header(kind, len(payload), msg_id, token) + payload).serialize(
                mask=False, extensions=[]) for kind, payload, msg_id, token in messages))

    def transport(self, method, *arguments):
        """Act below the WebSocket layer."""
        LOOP.call_soon_threadsafe(getattr(self.ws.transport, method), *arguments)

    def close(self):
        run(self.ws.close())

    def expect(self, msg_type, msg_id=None, token=None, seconds=5):
        """Take the first unread message that fits."""
        def take():
            for index, message in enumerate(self.unread):
                if (message.type == msg_type and msg_id in (None, message.id)
                        and token in (None, message.token)):
                    return self.unread.pop(index)
            return None
        return poll(take, seconds, lambda: f"message type {msg_type} id {msg_id} token {token};"
                    f" unread: {str(self.unread)[:1500]} errors: {self.errors}")

    def request(self, msg_type, payload=b"", token=""):
        """Send a request and return its response."""
        msg_id = next(_ids)
        self.send(msg_type, payload, msg_id, token)
        return self.expect(RESPONSE, msg_id)

    def settle(self):
        """Everything sent before this has been handled when it returns (messages go in order)."""
        assert self.request(RELEASE, token="nobody").token == "nobody"

    def open(self, port, **service):
        """Open a session; returns its identifier."""
        response = self.request(NEW_SESSION, new_session_request(port, **service))
        assert response.answer[:2] == (0, "new session response"), response
        self.sessions.add(response.token)
        return response.token

    def release(self, session):
        self.sessions.discard(session)
        return self.request(RELEASE, token=session)

    def collect(self, session, size):
        """The pieces of the session's next `size` bytes."""
        pieces, count = [], 0
        while count < size:
            pieces.append(self.expect(DATA_UP, token=session, seconds=20).payload)
            count += len(pieces[-1])
        return pieces


class BackEnd:
    """Listens on a port of its own. It answers each handshake with `code`, or not at all for None,
    and each ping when `pong` is set."""

    def __init__(self, code=0, tls=None, pong=True, port=None):
        self.port, self.channels = port or free_port(), []
        self._code, self._pong = code, pong
        self._server = run(self._serve(tls))

    async def _serve(self, tls):
        return await server.serve(
            self._channel, "127.0.0.1", self.port, ssl=tls, max_size=None, max_queue=None,
            compression=None, ping_interval=None)

    async def _channel(self, ws):
        channel = Channel(ws, ws.path)
        self.channels.append(channel)
        try:
            async for raw in ws:
                msg_type = channel.arrived(raw)
                if msg_type == HANDSHAKE and self._code is not None:
                    payload = f'{{"code": {self._code}, "message": "handshake"}}'.encode()
                    await ws.send(header(RESPONSE, len(payload), HANDSHAKE_ID) + payload)
                elif msg_type == PING and self._pong:
                    await ws.send(header(PONG))
        except websockets.ConnectionClosed:
            pass

    def close(self):
        """Refuse connections from now on; the open channels end, too."""
        LOOP.call_soon_threadsafe(self._server.close)

    def channel(self, number=0, seconds=10):
        """The number-th connection, once its handshake is there."""
        poll(lambda: len(self.channels) > number and self.channels[number].handshake, seconds,
             f"handshake on channel {number}")
        return self.channels[number]
