"""Local services of the gateway: what a session is connected to."""
import asyncio
import socket
import struct

from .network import free_port
from .waiting import LOOP, SCALE, poll, run

RESET = struct.pack("ii", 1, 0)  # linger of 0 s: the socket ends with an RST


def listen(receive_buffer=None, address="127.0.0.1", port=None):
    """A listening socket whose connections take in so much while nothing reads."""
    listener = socket.socket()
    listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    if receive_buffer:
        listener.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, receive_buffer)
    listener.bind((address, port or free_port()))
    listener.listen(64)
    return listener


def end_by_reset(connection):
    connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, RESET)
    connection.close()


def push_until(connection, done):
    """Sends whatever goes until done() is true; its result."""
    def push():
        try:
            while True:
                connection.send(bytes(1 << 16))
        except BlockingIOError:
            return done()

    connection.settimeout(0)
    return poll(push, 60, "a write that timed out")


class LocalService:
    """Listens; the test itself takes each connection and plays the service."""

    def __init__(self, receive_buffer=None):
        self.listener = listen(receive_buffer)
        self.port = self.listener.getsockname()[1]

    def accept(self, seconds=5):
        """The next connection, whose reads fail after the same time."""
        self.listener.settimeout(seconds * SCALE)
        connection, _ = self.listener.accept()
        connection.settimeout(seconds * SCALE)
        return connection


async def _echo(reader, writer):
    try:
        while data := await reader.read(1 << 16):
            writer.write(data)  # without a limit: it never stops reading
    except OSError:
        pass
    writer.close()


class NameServer(asyncio.DatagramProtocol):
    """Knows every name as 127.0.0.1, and no IPv6."""

    def connection_made(self, transport):
        self.transport = transport

    def datagram_received(self, data, peer):
        question = data[12:data.index(b"\0", 12) + 5]
        found = question[-4:-2] == b"\0\1"
        address = b"\xc0\x0c\0\1\0\1\0\0\0\0\0\4\x7f\0\0\1" if found else b""
        counts = struct.pack(">HHHHH", 0x8180, 1, found, 0, 0)
        self.transport.sendto(data[:2] + counts + question + address, peer)


def start_name_server(address):
    run(LOOP.create_datagram_endpoint(NameServer, local_addr=(address, 53)))


def start_echo():
    """A service that sends back what it reads; its port."""
    port = free_port()
    run(asyncio.start_server(_echo, "127.0.0.1", port, backlog=64))
    return port


def start_silent(tls=None, words=b""):
    """A server that says these words and no more, with tls once the TLS handshake is done; its
    port."""
    port, held = free_port(), []

    def accept(reader, writer):
        held.append((reader, writer))
        writer.write(words)
    run(asyncio.start_server(accept, "127.0.0.1", port, ssl=tls,
                             ssl_handshake_timeout=60 if tls else None))
    return port
