"""The HTTPS interface of the back end: who gets in, what each path answers (held against the
document that the back end serves), and what it costs to be a nuisance."""
import asyncio
import base64
import hashlib
import http.client
import json
import re
import secrets
import signal
import socket
import ssl
import time
from types import SimpleNamespace

import jsonschema
import pytest
from websockets.legacy import client

from harness.backend import start_back_end
from harness.network import free_port
from harness.sandbox import REPOSITORY
from harness.tls import HOST
from harness.waiting import SCALE, poll
from harness.waiting import run as run_on_loop

SCHEMA = json.loads((REPOSITORY / "docs/audit.schema.json").read_text())
JSON = {"Content-Type": "application/json"}


def new_token():
    return "rat_" + base64.urlsafe_b64encode(secrets.token_bytes(32)).rstrip(b"=").decode()


def token_entry(token, expires="2100-01-01T00:00:00Z"):
    return {"label": "test", "sha256": hashlib.sha256(token.encode()).hexdigest(),
            "expires": expires}


# anna may do everything, ben sees the device and no more, carl has no grant.
TOKENS = {name: new_token() for name in ("anna", "ben", "carl", "late", "busy")}
EXPIRED = "2020-01-01T00:00:00Z"
OPERATORS = {
    "operators": [
        {"name": "anna", "certificates": ["anna@example.com"],
         "tokens": [token_entry(TOKENS["anna"])]},
        {"name": "ben", "tokens": [token_entry(TOKENS["ben"])]},
        {"name": "carl", "tokens": [token_entry(TOKENS["carl"])]},
        {"name": "busy", "tokens": [token_entry(TOKENS["busy"])]},
        {"name": "late", "tokens": [token_entry(TOKENS["late"], EXPIRED)]}],
    "grants": [
        {"name": "all", "who": ["anna"], "devices": ["*"], "services": ["*"],
         "verbs": ["list", "connect", "verify", "close", "open", "manage"]},
        {"name": "look", "who": ["ben", "busy"], "devices": ["*"], "services": ["echo"],
         "verbs": ["list"]}]}


class Connection(http.client.HTTPSConnection):
    """To this machine, whatever the name in the certificate."""

    def __init__(self, port, context):
        super().__init__(HOST, port, timeout=20 * SCALE, context=context)
        self.tls = context

    def connect(self):
        plain = socket.create_connection(("127.0.0.1", self.port), self.timeout)
        plain.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        self.sock = self.tls.wrap_socket(plain, server_hostname=HOST)


class Api:
    def __init__(self, port, certificates, log):
        self.port, self.certificates, self.log = port, certificates, log
        self.document = None

    def context(self, certificate=None):
        context = ssl.create_default_context(cafile=self.certificates.paths("ca")[0])
        if certificate:
            context.load_cert_chain(*self.certificates.paths(certificate))
        return context

    def connection(self, certificate=None):
        connection = Connection(self.port, self.context(certificate))
        connection.connect()
        return connection

    def ask(self, method, path, body=None, who="anna", on=None, headers=()):
        """The answer, which the document allows: its status, headers and body."""
        connection = on or self.connection()
        given = dict(headers)
        if who:
            given["Authorization"] = "Bearer " + TOKENS.get(who, who)
        if body is not None and not isinstance(body, bytes):
            body, given = json.dumps(body), JSON | given
        connection.request(method, "/api/v1" + path, body, given)
        answer = connection.getresponse()
        got = SimpleNamespace(status=answer.status, headers=answer.headers, body=answer.read())
        if not on:
            connection.close()
        self.check(method, path, got)
        return got

    def check(self, method, path, got):
        assert got.headers["X-Content-Type-Options"] == "nosniff"
        assert re.match("private, no-cache|no-store", got.headers["Cache-Control"])
        if not self.document or method in ("HEAD", "OPTIONS"):
            return
        row = next((row for pattern, row in self.document["paths"].items()
                    if re.fullmatch(re.sub(r"\{\w+\}", "[^/]+", pattern), path.split("?")[0])
                    and method.lower() in row), None)
        problem = {"$ref": "#/components/schemas/Problem"}
        wanted = row and row[method.lower()]["responses"][str(got.status)]
        wanted = wanted or {"content": {"application/problem+json": {"schema": problem}}}
        if "$ref" in wanted:
            wanted = self.document["components"]["responses"][wanted["$ref"].split("/")[-1]]
        for name, header in wanted.get("headers", {}).items():
            assert name in got.headers or not header.get("required")
        if "content" not in wanted:
            assert got.body == b""
            return
        (kind, content), = wanted["content"].items()
        assert got.headers["Content-Type"] == kind
        if "json" in kind:
            got.json = json.loads(got.body)
            jsonschema.Draft202012Validator(
                content["schema"] | {"components": self.document["components"]}).validate(got.json)
            assert "status" not in got.json or got.json["status"] == got.status

    def raw(self, text, wait=5):
        """All that comes back for these bytes."""
        with socket.create_connection(("127.0.0.1", self.port), wait * SCALE) as plain, \
                self.context().wrap_socket(plain, server_hostname=HOST) as client:
            client.sendall(text)
            got = b""
            try:
                while piece := client.recv(65536):
                    got += piece
            except (TimeoutError, ConnectionError):
                got += b"(no end)"
            return got


@pytest.fixture(scope="module")
def api(launch, certificates, workspace, echo):
    home = workspace / "api-home"
    home.mkdir()
    listen, port = free_port(), free_port()
    (home / "operators.json").touch(0o600)
    (home / "operators.json").write_text(json.dumps(OPERATORS))
    services = [{"type": "TCP", "name": name, "ip": "127.0.0.1", "port": echo}
                for name in ("echo", "secret")]
    gateway = launch(api={"cloud": listen, "authority": certificates.authority,
                          "services": services})["api"]
    process = start_back_end(
        gateway, ("127.0.0.1", listen), certificates.paths(), "--operators",
        home / "operators.json", "--api", f"127.0.0.1:{port}", "--api-client-ca",
        certificates.paths("ca")[0], "--linger", 0.5, "--store", home / "store", "--audit",
        home / "audit")
    gateway.log.wait("I", "handshake response code is 0!", seconds=10)
    api = Api(port, certificates, lambda: gateway.log_beside("backend"))
    api.home, api.process, api.device = home, process, gateway.config["gw_system_devicename"]
    api.document = json.loads(api.ask("GET", "/openapi.json", who=None).body)
    yield api
    log = api.log()
    assert process.poll() is None and "Sanitizer" not in log, log
    lines = [json.loads(line) for line in (home / "audit").read_text().splitlines()]
    for line in lines:
        jsonschema.Draft202012Validator(SCHEMA).validate(line)
    everything = log + (home / "audit").read_text()
    for secret in (*TOKENS.values(), "hush-hush", "Bearer"):
        assert secret not in everything


DEVICE, SERVICE = "/devices/{d}", "/devices/{d}/services/echo"
# Paths that other tests, or those of other features, get a good answer of.
ELSEWHERE = {"/events", "/devices/{device}/disconnect", "/devices/{device}/open", "/tokens/{id}",
             "/devices/{device}/close-access", "/sessions/{session}",
             "/devices/{device}/services/{service}/host-keys",
             "/devices/{device}/services/{service}/ssh-certificate"}
# Method, path, body, who, status.
ANSWERS = [
    ("GET", "/openapi.json", None, None, 200),
    ("GET", "/whoami", None, "anna", 200),
    ("GET", "/can?device={d}&service=echo&verb=connect", None, "ben", 200),
    ("GET", "/can?device={d}&service=echo&verb=fly", None, "ben", 400),
    ("GET", "/can", None, "anna", 400),
    ("GET", "/status", None, "anna", 200),
    ("GET", "/status", None, "carl", 403),
    ("GET", "/devices", None, "anna", 200),
    ("GET", "/devices?pattern=x*&state=away&limit=5", None, "anna", 200),
    ("GET", "/devices?limit=many", None, "anna", 400),
    ("GET", "/devices?limit=0", None, "anna", 400),
    ("GET", "/devices?stat=away", None, "anna", 400),
    ("GET", "/devices?limit=1&limit=2", None, "anna", 400),
    ("GET", "/devices?pattern=%zz", None, "anna", 400),
    ("GET", DEVICE, None, "ben", 200),
    ("GET", DEVICE, None, "carl", 404),
    ("GET", "/devices/nobody", None, "anna", 404),
    ("GET", "/devices/a%00b", None, "anna", 400),
    ("GET", DEVICE + "/services", None, "ben", 200),
    ("GET", SERVICE + "/connect", None, "anna", 426),
    ("POST", DEVICE + "/verify", {"user": "root", "password": "hush-hush"}, "anna", 200),
    ("POST", DEVICE + "/verify", {"user": "root", "password": "hush-hush"}, "ben", 403),
    ("POST", DEVICE + "/verify", {"user": "root"}, "anna", 400),
    ("POST", DEVICE + "/verify", {"user": "root", "password": 1}, "anna", 400),
    ("POST", DEVICE + "/verify", {"user": "r", "password": "p", "do": "status"}, "anna", 400),
    ("POST", DEVICE + "/open", {}, "anna", 501),
    ("POST", DEVICE + "/close-access", None, "anna", 501),
    ("POST", DEVICE + "/open", None, "ben", 403),
    ("POST", DEVICE + "/open", None, "carl", 404),
    ("GET", "/sessions", None, "ben", 200),
    ("DELETE", "/sessions/4711", None, "anna", 404),
    ("GET", "/tokens", None, "ben", 200),
    ("POST", "/tokens", {"label": "second", "days": 1}, "ben", 200),
    ("POST", "/tokens", {"days": 1}, "ben", 400),
    ("DELETE", "/tokens/nothing", None, "ben", 404),
    ("DELETE", "/tokens/operators.json%3Atest", None, "ben", 409),
    ("PUT", "/tokens", {}, "anna", 405),
    ("POST", "/whoami", {}, "anna", 405),
    ("GET", "/tokens/x", None, "anna", 405),
    ("GET", "/nothing", None, "anna", 404),
    ("GET", "/devices/", None, "anna", 404),
    ("GET", "/whoami", {"a": 1}, "anna", 400),
    ("POST", "/tokens", b"label=x", "anna", 415),
]


def test_answers(api):
    on = {name: api.connection() for name in TOKENS}
    for method, path, body, who, status in ANSWERS:
        path = path.format(d=api.device)
        got = api.ask(method, path, body, who, on=on.get(who))
        assert got.status == status, (method, path, got.body)
        if status == 405:
            assert method not in got.headers["Allow"]
    asked = {(pattern, method) for pattern, row in api.document["paths"].items() for method in row
             if any(method.upper() == wanted and status == 200 or "connect" in pattern
                    for wanted, path, _, _, status in ANSWERS
                    if re.fullmatch(re.sub(r"\{\w+\}", "[^/]+", pattern), path.split("?")[0]))}
    unasked = {(pattern, method) for pattern, row in api.document["paths"].items()
               for method in row} - asked
    assert {pattern for pattern, _ in unasked} <= ELSEWHERE, unasked
    assert {row["name"] for row in api.ask("GET", f"/devices/{api.device}/services",
                                           who="ben").json["services"]} == {"echo"}
    for body, status in ((b"{", 400), (b"[]", 400), (b'{"label":"\xff"}', 400),
                         (b"[" * 60000, 400), (b" " * 70000, 413)):
        got = api.ask("POST", "/tokens", body, headers=JSON)
        assert got.status == status, body[:20]
    for path, allow in (("/tokens", "GET, HEAD, POST, OPTIONS"), ("/tokens/1", "DELETE, OPTIONS")):
        got = api.ask("OPTIONS", path)
        assert (got.status, got.headers["Allow"], got.body) == (204, allow, b"")
    got = api.ask("HEAD", "/devices")
    assert (got.status, got.body, int(got.headers["Content-Length"]) > 50) == (200, b"", True)


def test_conditional_requests(api):
    connection = api.connection()
    for path in ("/devices", f"/devices/{api.device}/services", "/sessions", "/openapi.json"):
        tag = api.ask("GET", path, on=connection).headers["ETag"]
        for given, status in ((tag, 304), ("*", 304), (f'W/{tag}, "x"', 304), ('"x"', 200)):
            got = api.ask("GET", path, on=connection, headers={"If-None-Match": given})
            assert (got.status, got.headers["ETag"]) == (status, tag)


def test_who_gets_in(api):
    for who, status in ((None, 401), ("rat_" + "A" * 43, 401), ("nonsense", 401), ("late", 401),
                        ("anna", 200)):
        got = api.ask("GET", "/whoami", who=who)
        assert got.status == status, who
        assert status == 200 or got.headers["WWW-Authenticate"].startswith("Bearer")
    got = api.ask("GET", "/nothing", who=None)  # nor does a stranger learn what there is
    assert got.status == 401
    got = api.ask("GET", "/whoami", who=None, on=api.connection("operator"))
    assert (got.status, got.json["operator"]) == (200, "anna")
    # A token counts first, and one that proves nothing is not made good.
    got = api.ask("GET", "/whoami", who="ben", on=api.connection("operator"))
    assert got.json["operator"] == "ben"
    assert api.ask("GET", "/whoami", who="late", on=api.connection("operator")).status == 401
    for certificate in ("strange-operator", "late-operator"):
        with pytest.raises((ssl.SSLError, ConnectionError)):
            api.ask("GET", "/whoami", who=None, on=api.connection(certificate))
    assert api.ask("GET", "/whoami", who=None, on=api.connection("good")).status == 401
    refused = [line for line in map(json.loads, (api.home / "audit").read_text().splitlines())
               if line["event"] == "sign_in_refused"]
    assert {line["reason"] for line in refused} >= {"the token is not valid"}


def test_own_tokens(api):
    made = api.ask("POST", "/tokens", {"label": "for a script"}, who="ben").json
    assert api.ask("GET", "/whoami", who=made["token"]).json["operator"] == "ben"
    further = api.ask("POST", "/tokens", {"label": "further"}, who=made["token"]).json
    assert further["expires"] <= made["expires"]
    gone = api.ask("DELETE", f"/tokens/{made['id']}", who="ben").json["revoked"]
    assert set(gone) == {made["id"], further["id"]}
    for token in made, further:
        assert api.ask("GET", "/whoami", who=token["token"]).status == 401
    TOKENS.update(made=made["token"], further=further["token"])  # in no line either


def request(*fields, line="GET /api/v1/whoami HTTP/1.1", body=b"", token=True, host=True):
    lines = [line, *(["Host: x"] if host else []), *fields]
    if token:
        lines.append("Authorization: Bearer " + TOKENS["anna"])
    return "\r\n".join([*lines, "", ""]).encode() + body


CLOSE = "Connection: close"
MALFORMED = [
    (request(CLOSE), 200), (request(CLOSE, line="GET /api/v1/whoami HTTP/1.0", host=False), 200),
    (request(CLOSE, line="GET https://cloud.test/api/v1/whoami HTTP/1.1"), 200),
    (request(CLOSE, line="OPTIONS * HTTP/1.1"), 204),
    (request(host=False), 400), (request("Host: y"), 400),
    (request("Authorization: Bearer x"), 400),
    (request("Content-Length: 1", "Content-Length: 2"), 400),
    (request("Content-Length: x"), 400), (request("Content-Length: -1"), 400),
    (request("Content-Length: 1", "Transfer-Encoding: chunked"), 400),
    (request("Transfer-Encoding: gzip"), 501), (request("Transfer-Encoding: gzip, chunked"), 501),
    (request(line="GET /api/v1/whoami HTTP/3.0"), 505),
    (request(CLOSE, line="GET api HTTP/1.1"), 400), (request(line="GET  HTTP/1.1"), 400),
    (request(CLOSE, line="GET /api/v1/%2 HTTP/1.1"), 400),
    (request(CLOSE, line="GET /api/v1/devices/%c0%af HTTP/1.1"), 400),
    (request(CLOSE, line="GET / HTTP/1.1"), 404), (b"\x16\x03\x01 nonsense\r\n\r\n", 400),
    (request("X: " + "x" * 20000), 431),
    (request("Content-Length: 99999", line="POST /api/v1/tokens HTTP/1.1", token=False), 401),
    (request("Content-Length: 99999", *[": ".join(i) for i in JSON.items()],
             line="POST /api/v1/tokens HTTP/1.1"), 413),
    (request("Expect: 100-continue", "Content-Length: 2", *[": ".join(i) for i in JSON.items()],
             CLOSE, line="POST /api/v1/tokens HTTP/1.1", body=b"{}"), 100),
    (request("Transfer-Encoding: chunked", *[": ".join(i) for i in JSON.items()], CLOSE,
             line="POST /api/v1/tokens HTTP/1.1", body=b"1\r\n{\r\n1\r\n}\r\n0\r\n\r\n"), 400),
]


def test_malformed_requests(api):
    for text, status in MALFORMED:
        got = api.raw(text)
        assert got.startswith(f"HTTP/1.1 {status} ".encode()), (text[:200], got)
        assert b"(no end)" not in got, text[:200]
    # In order, and the last one ends it.
    got = api.raw(request() + request(line="GET /api/v1/nothing HTTP/1.1") + request(CLOSE))
    assert [int(status) for status in re.findall(rb"HTTP/1.1 (\d+)", got)] == [200, 404, 200]


def test_slow_ones_are_cut_off(api):
    """Strangers after a few seconds, an operator that does not send what it began to, too."""
    begin = time.monotonic()
    assert b"HTTP" not in api.raw(b"GET /api/v1/whoami HTTP/1.1\r\n", 30)
    assert time.monotonic() - begin < 15 * SCALE
    assert api.raw(request() + b"GET /", 30).count(b"HTTP/1.1 408") == 1


def test_rates(api):
    statuses = [api.ask("GET", "/whoami", who="nonsense").status for _ in range(20)]
    assert set(statuses) == {401, 429} and statuses[-1] == 429, statuses
    assert api.ask("GET", "/whoami", who="anna").status == 200  # from the same address
    on = api.connection()
    got = [api.ask("GET", "/whoami", who="busy", on=on) for _ in range(300)]
    limited = [answer for answer in got if answer.status == 429]
    assert len(limited) > 20 and int(limited[0].headers["Retry-After"]) >= 1
    assert [answer.status for answer in got[:200]] == [200] * 200
    assert api.ask("GET", "/whoami", who="ben", on=on).status == 200  # others are not held back


def test_many_connections_of_an_operator(api):
    held = []
    try:
        for _ in range(256):
            held.append(api.connection())
            assert api.ask("GET", "/whoami", who="carl", on=held[-1]).status in (200, 429)
        assert api.ask("GET", "/whoami", who="carl").status == 429
        assert api.ask("GET", "/whoami", who="anna").status == 200
    finally:
        for connection in held:
            connection.close()
    poll(lambda: api.ask("GET", "/whoami", who="carl").status == 200, 10, "places are free again")


class Events:
    def __init__(self, api, who):
        self.connection = api.connection()
        self.connection.request("GET", "/api/v1/events",
                                headers={"Authorization": "Bearer " + TOKENS.get(who, who)})
        self.sock = self.connection.sock
        self.answer = self.connection.getresponse()
        self.status = self.answer.status

    def next(self):
        """Name and data of the next event, without comments."""
        lines = []
        while line := self.answer.readline():
            if line == b"\n" and lines:
                return lines[0][7:], json.loads(lines[1][6:])
            if line.startswith((b"event: ", b"data: ")):
                lines.append(line.decode().strip())
        return None


def test_events_of_a_session(api):
    anna, ben = Events(api, "anna"), Events(api, "ben")
    assert (anna.status, anna.answer.headers["Content-Type"]) == (200, "text/event-stream")

    def open_session(service):
        path = f"/api/v1/devices/{api.device}/services/{service}/connect"
        return client.connect(
            f"wss://{HOST}:{api.port}{path}", ssl=api.context(), compression=None,
            host="127.0.0.1", server_hostname=HOST, subprotocols=["remote-access.v1"],
            extra_headers={"Authorization": "Bearer " + TOKENS["anna"]})

    async def session(service):
        async with open_session(service) as socket_:
            await socket_.send(b"hello")
            assert await socket_.recv() == b"hello"
            await socket_.send(json.dumps({"end": "sending"}))
            return socket_.response_headers["Remote-Access-Session"], json.loads(
                await socket_.recv())

    async def ended_by_another():
        async with open_session("echo") as socket_:
            number = socket_.response_headers["Remote-Access-Session"]
            loop = asyncio.get_running_loop()
            got = await loop.run_in_executor(None, api.ask, "DELETE", f"/sessions/{number}")
            return got.status, json.loads(await socket_.recv())["ended"]

    hidden, _ = run_on_loop(session("secret"))
    number, end = run_on_loop(session("echo"))
    assert (end["bytes_up"], end["bytes_down"]) == (5, 5)
    seen = [anna.next() for _ in range(4)]
    assert [(name, data["session"]) for name, data in seen] == [
        ("session-begun", hidden), ("session-ended", hidden),
        ("session-begun", number), ("session-ended", number)]
    schema = api.document["components"]["schemas"]["Event"]
    for _, data in seen:
        jsonschema.Draft202012Validator(schema).validate(data)
    assert [data["session"] for _, data in (ben.next(), ben.next())] == [number, number]
    assert run_on_loop(ended_by_another()) == (200, "closed by anna")
    assert [ben.next()[0] for _ in range(2)] == ["session-begun", "session-ended"]
    api.ask("POST", f"/devices/{api.device}/disconnect", {"reason": "test"})
    assert [ben.next()[0] for _ in range(2)] == ["device-disconnected", "device-connected"]
    streams = [Events(api, "ben") for _ in range(16)]
    assert [stream.status for stream in streams] == [200] * 15 + [429]


def test_a_revoked_token_loses_its_events(api):
    made = api.ask("POST", "/tokens", {"label": "stream"}, who="anna").json
    TOKENS["stream"] = made["token"]
    stream = Events(api, made["token"])
    begin = time.monotonic()
    api.ask("DELETE", f"/tokens/{made['id']}")
    assert stream.next() is None and time.monotonic() - begin < 20 * SCALE


def test_certificates_are_read_again(api):
    """A broken one leaves the old one in use."""
    def reload(count):
        api.process.send_signal(signal.SIGHUP)
        poll(lambda: api.log().count("files read again") > count, 5, "reload")
    count = api.log().count("files read again")
    good = json.dumps(OPERATORS)
    (api.home / "operators.json").write_text("{")
    reload(count)
    assert api.ask("GET", "/whoami").status == 200
    smaller = OPERATORS | {"operators": OPERATORS["operators"][1:],
                           "grants": OPERATORS["grants"][1:]}
    (api.home / "operators.json").write_text(json.dumps(smaller))
    reload(count + 1)
    assert api.ask("GET", "/whoami").status == 401
    (api.home / "operators.json").write_text(good)
    reload(count + 2)
    assert api.ask("GET", "/whoami").status == 200
