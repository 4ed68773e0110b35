"""A relay in front of the back end, as a load balancer would be.

It passes TLS through untouched, and can hold an opening at a chosen record, end connections by FIN
or RST, and refuse new ones.
"""
import asyncio
import socket

from harness import waiting
from harness.local import RESET, listen

BUFFER = 1 << 16  # what is taken in here would count as delivered on the other side


class Relay:
    """`hold_at` is the number of the TLS record of the gateway that goes no further until it is
    None again; `holding` says that one has come."""

    def __init__(self, port, back_end):
        self._port, self._back_end = port, back_end
        self.hold_at, self.holding = None, False
        self._pairs, self._servers = set(), []

    def listen(self, *addresses):
        async def start():
            for address in addresses:
                self._servers.append(await asyncio.start_server(
                    self._serve, sock=listen(BUFFER, address, self._port), limit=BUFFER))
        waiting.run(start())

    def refuse(self):
        """No connection is taken from now on."""
        async def stop():
            while self._servers:
                self._servers.pop().close()
        waiting.run(stop())

    def end_all(self, by_reset):
        async def end():
            for gateway, back_end in list(self._pairs):
                if by_reset:
                    for side in (gateway, back_end):
                        side.get_extra_info("socket").setsockopt(
                            socket.SOL_SOCKET, socket.SO_LINGER, RESET)
                        side.transport.abort()
                else:
                    gateway.write_eof()
        waiting.run(end())

    async def _serve(self, reader, gateway):
        try:
            answers, back_end = await asyncio.open_connection(*self._back_end, limit=BUFFER)
            back_end.get_extra_info("socket").setsockopt(socket.SOL_SOCKET, socket.SO_SNDBUF,
                                                         BUFFER)
        except OSError:
            gateway.transport.abort()
            return
        pair = (gateway, back_end)
        self._pairs.add(pair)
        ways = [asyncio.ensure_future(way) for way in
                (self._carry_records(reader, back_end), self._carry(answers, gateway))]
        await asyncio.wait(ways, return_when=asyncio.FIRST_COMPLETED)
        self._pairs.discard(pair)
        for way in ways:
            way.cancel()
        for side in pair:
            side.close()

    async def _carry_records(self, reader, writer):
        count = 0
        try:
            while True:
                head = await reader.readexactly(5)
                record = head + await reader.readexactly(int.from_bytes(head[3:], "big"))
                while self.hold_at == count:
                    self.holding = True
                    await asyncio.sleep(0.01)
                count += 1
                writer.write(record)
                await writer.drain()
        except (OSError, asyncio.IncompleteReadError):
            pass

    @staticmethod
    async def _carry(reader, writer):
        try:
            while data := await reader.read(1 << 16):
                writer.write(data)
                await writer.drain()
        except (OSError, RuntimeError):  # the latter: written to after its end
            pass
