"""Local services of the gateway: what a session is connected to."""
import asyncio
import socket
import struct

from .network import free_port
from .waiting import LOOP, SCALE, run


class LocalService:
    """Listens; the test itself takes each connection and plays the service."""

    def __init__(self, receive_buffer=None):
        self.listener = socket.socket()
        if receive_buffer:
            self.listener.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, receive_buffer)
        self.port = free_port()
        self.listener.bind(("127.0.0.1", self.port))
        self.listener.listen(64)

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
