"""A gateway's own web page, opened through the tunnel in a real headless Chromium.

The browser is driven over its DevTools protocol. It is large, so this runs for scripts/test-browser
alone: RA_SCREENSHOT is set then, to the name of the picture that is left.
"""
import asyncio
import base64
import hashlib
import itertools
import json
import os
import pathlib
import random
import subprocess
import urllib.request

import pytest
from websockets.legacy import client

from harness.waiting import SCALE, poll
from harness.waiting import run as run_on_loop
from test_demo_path import Tunnel

pytestmark = pytest.mark.skipif("RA_SCREENSHOT" not in os.environ, reason="scripts/test-browser")
PAGE = pathlib.Path(__file__).with_name("page.html")
LARGE = random.Random(3).randbytes(64 << 20)
PIECES, PAUSE_S = 10, 0.2
PICTURE = ('<svg xmlns="http://www.w3.org/2000/svg" width="8" height="8">'
           '<rect width="8" height="8" fill="hsl({},60%,60%)"/></svg>')


class Page:
    """The gateway's web server; `most` is the number of connections it served at once."""

    def __init__(self):
        self.open = self.most = 0

    def body(self, path):
        if path == "/large":
            return "application/octet-stream", LARGE
        if path.startswith("/picture/"):
            return "image/svg+xml", PICTURE.format(7 * int(path[9:-4])).encode()
        return "text/html", PAGE.read_bytes()

    async def serve(self, reader, writer):
        self.open += 1
        self.most = max(self.most, self.open)
        try:
            while request := await reader.readuntil(b"\r\n\r\n"):
                path = request.split()[1].decode()
                if path == "/stream":
                    await self.stream(writer)
                    continue
                kind, body = self.body(path)
                if path.startswith("/picture/"):
                    await asyncio.sleep(0.05)  # so that connections are needed side by side
                writer.write(b"HTTP/1.1 200 OK\r\nContent-Type: %s\r\nContent-Length: %d\r\n\r\n"
                             % (kind.encode(), len(body)) + body)
                await writer.drain()
        except (asyncio.IncompleteReadError, ConnectionError):
            pass
        self.open -= 1
        writer.close()

    async def stream(self, writer):
        writer.write(b"HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\n"
                     b"Transfer-Encoding: chunked\r\n\r\n")
        for number in range(PIECES):
            piece = f"piece {number}\n".encode()
            writer.write(b"%x\r\n%s\r\n" % (len(piece), piece))
            await asyncio.sleep(PAUSE_S)
        writer.write(b"0\r\n\r\n")


class Browser:
    """A headless Chromium with one page."""

    def __init__(self, directory):
        (directory / "profile").mkdir()
        port_file = directory / "profile/DevToolsActivePort"
        self.log = open(directory / "chromium.log", "wb")
        self.process = subprocess.Popen(
            ["chromium", "--headless=new", "--no-sandbox", "--disable-gpu", "--disable-quic",
             "--no-first-run", "--disable-background-networking", "--disable-component-update",
             "--disable-sync", "--no-proxy-server", "--window-size=800,640",
             "--remote-debugging-port=0", f"--user-data-dir={directory}/profile", "about:blank"],
            stdout=self.log, stderr=self.log)
        poll(lambda: port_file.exists() and port_file.read_text().count("\n"), 30, "Chromium")
        port = port_file.read_text().split()[0]

        def page():
            with urllib.request.urlopen(f"http://127.0.0.1:{port}/json") as answer:
                return [tab for tab in json.load(answer) if tab["type"] == "page"]
        url = poll(page, 30, "Chromium's page")[0]["webSocketDebuggerUrl"]
        self.link = run_on_loop(self._connect(url))
        self.ids = itertools.count(1)

    async def _connect(self, url):
        return await client.connect(url, max_size=None, ping_interval=None)

    async def _ask(self, method, arguments):
        number = next(self.ids)
        await self.link.send(json.dumps({"id": number, "method": method, "params": arguments}))
        while True:
            answer = json.loads(await self.link.recv())
            if answer.get("id") == number:
                return answer["result"]

    def ask(self, method, **arguments):
        return run_on_loop(self._ask(method, arguments))

    def evaluate(self, expression):
        result = self.ask("Runtime.evaluate", expression=expression, awaitPromise=True)
        assert "exceptionDetails" not in result, result
        return result["result"].get("value")

    def close(self):
        self.process.terminate()
        self.process.wait(30)
        self.log.close()


@pytest.fixture
def browser(workspace):
    made = Browser(workspace)
    yield made
    made.close()


def test_page_through_the_tunnel(launch, certificates, workspace, browser):
    (workspace / "home").mkdir()
    page = Page()
    tunnel = Tunnel(launch, certificates, workspace / "home", page.serve)
    browser.ask("Page.navigate", url=f"http://127.0.0.1:{tunnel.ports['http_localhost']}/")
    poll(lambda: browser.evaluate("document.readyState === 'complete' && typeof run"), 30 * SCALE,
         "the page")
    found = json.loads(browser.evaluate("run()"))
    picture = base64.b64decode(browser.ask("Page.captureScreenshot")["data"])
    pathlib.Path(os.environ["RA_SCREENSHOT"]).write_bytes(picture)
    assert found["shown"] == 48 and page.most >= 4
    assert found["digest"] == hashlib.sha256(LARGE).hexdigest()
    # Nothing on the way may gather the pieces of a stream until it ends.
    pauses = [later - sooner for sooner, later in zip(found["times"], found["times"][1:])]
    assert len(pauses) >= PIECES - 2 and sorted(pauses)[len(pauses) // 2] > 1000 * PAUSE_S / 2
