"""Echo server on python3-websockets: prints its port, serves one client and ends.

Every message goes back twice, whole and in fragments.
"""
import asyncio
import ssl
import sys

import websockets

PATIENCE_S = 60


def thirds(message):
    """Three fragments; the library ends them with an empty one."""
    cut = len(message) // 3
    return [message[:cut], message[cut : 2 * cut], message[2 * cut :]]


async def main(certificate):
    context = None
    if certificate:
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        context.load_cert_chain(certificate)
    done = asyncio.Event()

    async def echo(socket):
        async for message in socket:
            await socket.send(message)
            await socket.ping(b"are you there")
            await socket.send(thirds(message))
        done.set()

    async with websockets.serve(echo, "127.0.0.1", 0, ssl=context) as server:
        print(server.sockets[0].getsockname()[1], flush=True)
        await asyncio.wait_for(done.wait(), PATIENCE_S)


asyncio.run(main(sys.argv[1] if len(sys.argv) > 1 else None))
