"""A back end that the tests script: it shares no code with the daemon or with our own back end.

Every message that a gateway sends is recorded and held against the exact layout. The server runs
on one asyncio thread; the methods below are for the tests' thread.
"""
import asyncio
import itertools
import re
import socket
import ssl
import threading
import time
from dataclasses import dataclass

import websockets
from websockets.frames import Frame, Opcode

from .network import free_port
from .waiting import poll

RESPONSE, HANDSHAKE, NEW_SESSION, RELEASE, VERIFY = 0, 1, 4, 5, 6
DATA_UP, DATA_DOWN, PING, PONG = 21, 22, 256, 257
HANDSHAKE_ID = "msg_id_for_handshake"
MESSAGE_LIMIT, UP_LIMIT = 51200, 50172

_HEADER = re.compile(rb'\{"msg_type": (\d+),"payload_len": (\d+),"msg_id": "([^"]*)",'
                     rb'"timestamp":(\d+),"token":"([^"]*)"\}\r\n\r\n')
_ANSWER = re.compile(r'\{"code": (\d+), "message": "([^"]*)"\}\r\n\r\n(.*)', re.DOTALL)
_ids = (f"id-{n}" for n in itertools.count())
_loop = asyncio.new_event_loop()
_thread = threading.Thread(target=_loop.run_forever, daemon=True)


def _run(coroutine):
    if not _thread.is_alive():
        _thread.start()
    return asyncio.run_coroutine_threadsafe(coroutine, _loop).result(60)


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
        header = _HEADER.match(raw) if isinstance(raw, bytes) else None
        if not header or len(raw) != header.end() + int(header[2]):
            raise ValueError(f"not a message: {raw[:300]!r}")
        if abs(int(header[4]) - time.time()) > 60:
            raise ValueError(f"timestamp is not the current time: {raw[:300]!r}")
        msg_id, token = (text.decode(errors="replace") for text in header.group(3, 5))
        return cls(int(header[1]), msg_id, token, int(header[4]), raw[header.end():])

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


def frame(data, opcode=Opcode.BINARY, fin=True):
    return Frame(opcode, data, fin).serialize(mask=False, extensions=[])


def new_session_request(port, ip="127.0.0.1", name="test", kind="TCP"):
    return (f'{{"service_type":"{kind}","service_name":"{name}","service_ip":"{ip}",'
            f'"service_port":{port}}}').encode()


class Channel:
    """One WebSocket connection of a gateway."""

    def __init__(self, socket_):
        self.ws = socket_
        self.unread = []   # messages that no expect() has taken yet
        self.errors = []   # what broke the layout
        self.sessions = set()
        self.handshake = None
        self._changed = threading.Condition()

    def arrived(self, raw):
        with self._changed:
            try:
                message = Message.parse(raw)
                if self.handshake is None and message.type == HANDSHAKE:
                    self.handshake = message
                else:
                    self.unread.append(message)
            except ValueError as error:
                self.errors.append(str(error))
            self._changed.notify_all()

    @property
    def closed(self):
        return self.ws.closed

    def send_raw(self, *pieces):
        """One WebSocket message, in as many fragments as there are pieces."""
        _run(self.ws.send(pieces[0] if len(pieces) == 1 else list(pieces)))

    def send(self, msg_type, payload=b"", msg_id="m", token=""):
        self.send_raw(header(msg_type, len(payload), msg_id, token) + payload)

    def send_together(self, *messages):
        """Several messages in one write to the socket."""
        self.write(b"".join(frame(message) for message in messages))

    def write(self, data):
        """Bytes below the WebSocket layer."""
        _loop.call_soon_threadsafe(self.ws.transport.write, data)

    def stop_reading(self):
        _loop.call_soon_threadsafe(self.ws.transport.pause_reading)

    def read_again(self):
        _loop.call_soon_threadsafe(self.ws.transport.resume_reading)

    def ping(self, data):
        """A WebSocket ping; returns once its pong is there."""
        async def ping_and_wait():
            await asyncio.wait_for(await self.ws.ping(data), 30)
        _run(ping_and_wait())

    def close(self):
        _run(self.ws.close())

    def abort(self):
        _loop.call_soon_threadsafe(self.ws.transport.abort)

    def expect(self, msg_type, msg_id=None, token=None, seconds=5):
        """Take the first unread message that fits."""
        def take():
            with self._changed:
                for message in self.unread:
                    if (message.type == msg_type and msg_id in (None, message.id)
                            and token in (None, message.token)):
                        self.unread.remove(message)
                        return message
            return None
        return poll(take, seconds, lambda: f"message type {msg_type} id {msg_id} token {token}; unread: "
                    f"{str(self.unread)[:1500]} closed: {self.closed} errors: {self.errors}")

    def request(self, msg_type, payload=b"", token="", seconds=5):
        """Send a request and return its response."""
        msg_id = next(_ids)
        self.send(msg_type, payload, msg_id, token)
        return self.expect(RESPONSE, msg_id, seconds=seconds)

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

    def send_data(self, session, data, piece=51000):
        for start in range(0, len(data), piece):
            self.send(DATA_DOWN, data[start:start + piece], token=session)

    def collect(self, session, size, seconds=20):
        """The pieces of the session's next `size` bytes."""
        pieces, count = [], 0
        while count < size:
            pieces.append(self.expect(DATA_UP, token=session, seconds=seconds).payload)
            count += len(pieces[-1])
        return pieces


class BackEnd:
    """Listens on a port of its own. It answers each handshake with `code`, or not at all for None,
    and each ping when `pong` is set."""

    def __init__(self, code=0, tls=None, pong=True):
        self.port = free_port()
        self.channels = []
        self._code, self._pong = code, pong
        self._server = _run(self._serve(tls))

    async def _serve(self, tls):
        return await websockets.serve(self._channel, "127.0.0.1", self.port, ssl=tls, max_size=None,
                                      max_queue=None, compression=None, ping_interval=None)

    async def _channel(self, ws, path):
        channel = Channel(ws)
        channel.path = path
        self.channels.append(channel)
        try:
            async for raw in ws:
                channel.arrived(raw)
                await self._answer(channel, ws)
        except websockets.ConnectionClosed:
            pass

    async def _answer(self, channel, ws):
        if channel.handshake and not channel.unread and not hasattr(channel, "greeted"):
            channel.greeted = True
            if self._code is not None:
                payload = f'{{"code": {self._code}, "message": "handshake"}}'.encode()
                await ws.send(header(RESPONSE, len(payload), HANDSHAKE_ID) + payload)
        if self._pong and channel.unread and channel.unread[-1].type == PING:
            await ws.send(header(PONG, 0, channel.unread[-1].id))

    def channel(self, number=0, seconds=10):
        """The number-th connection, once its handshake is there."""
        poll(lambda: len(self.channels) > number and self.channels[number].handshake, seconds,
             f"handshake on channel {number}")
        return self.channels[number]

    def close(self):
        _loop.call_soon_threadsafe(self._server.close)


class SilentServer:
    """Takes connections and never says a word; with tls it finishes the TLS handshake first."""

    def __init__(self, tls=None):
        self.port = free_port()
        self._tls, self._held = tls, []
        self._listener = socket.create_server(("127.0.0.1", self.port))
        threading.Thread(target=self._serve, daemon=True).start()

    def _serve(self):
        while True:
            try:
                connection, _ = self._listener.accept()
                if self._tls:
                    connection.settimeout(10)
                    connection = self._tls.wrap_socket(connection, server_side=True)
                self._held.append(connection)
            except (ssl.SSLError, TimeoutError):
                continue
            except OSError:
                return

    def close(self):
        self._listener.shutdown(socket.SHUT_RDWR)
        self._listener.close()
