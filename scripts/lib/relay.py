#!/usr/bin/python3
"""Usage: relay.py LISTEN CONNECT

Carries every connection made to LISTEN to CONNECT, both ways, until it is ended. Each is unix:PATH
or tcp:ADDRESS:PORT; once it listens it prints where (port 0 takes any free port). It connects the
host's network with a sandbox that has its own: two relays meet at a Unix socket, because files are
what both sides share.
"""
import asyncio
import os
import signal
import sys

PIECE = 64 * 1024


def parse(text):
    kind, _, place = text.partition(":")
    if kind == "unix" and place:
        return place, None
    address, _, port = place.rpartition(":")
    if kind == "tcp" and address and port.isdecimal() and int(port) < 65536:
        return address, int(port)
    raise SystemExit(f"relay.py: {text!r} is neither unix:PATH nor tcp:ADDRESS:PORT")


async def copy(reader, writer):
    try:
        while piece := await reader.read(PIECE):
            writer.write(piece)
            await writer.drain()
        writer.write_eof()  # the other direction goes on
    except OSError:
        writer.close()


async def carry(near_reader, near_writer, target):
    place, port = target
    try:
        if port is None:
            far_reader, far_writer = await asyncio.open_unix_connection(place)
        else:
            far_reader, far_writer = await asyncio.open_connection(place, port)
    except OSError as error:
        print(f"relay.py: {place}: {error}", file=sys.stderr)
        near_writer.close()
        return
    await asyncio.gather(copy(near_reader, far_writer), copy(far_reader, near_writer))
    near_writer.close()
    far_writer.close()


async def main(listen, target):
    place, port = listen

    async def accept(reader, writer):
        await carry(reader, writer, target)

    if port is None:
        server = await asyncio.start_unix_server(accept, place)
    else:
        server = await asyncio.start_server(accept, place, port)
    name = server.sockets[0].getsockname()
    print(name if port is None else f"{name[0]}:{name[1]}", flush=True)
    ended = asyncio.Event()
    for number in (signal.SIGTERM, signal.SIGINT):
        asyncio.get_running_loop().add_signal_handler(number, ended.set)
    await ended.wait()
    if port is None:
        os.unlink(place)


if __name__ == "__main__":
    if len(sys.argv) != 3:
        raise SystemExit(__doc__)
    asyncio.run(main(parse(sys.argv[1]), parse(sys.argv[2])))
