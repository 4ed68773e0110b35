"""Who may do what: the same through every door, which are the control socket, a token, a client
certificate and a forwarded port."""
import contextlib
import copy
import json
import os
import pwd
import re
import socket
import tempfile
import time

import jsonschema
import pytest

from harness.backend import device_entry, start_back_end
from harness.network import free_port
from harness.waiting import SCALE, poll
from test_api import SCHEMA, TOKENS, Api, Events, new_token, token_entry
from test_bus_policy import ALONE

PRODUCTS = {"gw-b-1": "pk1", "gw-m-1": "pk2", "gw-m-2": "pk2"}
AWAY, NO_DEVICE, NO_SERVICE = "gw-m-2", "gw-x-1", "zzz_a"
SERVICES = ("ssh_a", "web_a", "log_a")
VERBS = ("list", "connect", "verify", "close", "open", "manage")
# Operations that need what "connect" needs.
LIKE_CONNECT = {"host-keys": {}, "ssh-certificate": {
    "public_key": "ssh-ed25519 AAAAC3NzaC1lZDI1NTE5AAAAI" + 43 * "A"}}
ACCOUNTS = {"anna": "daemon", "ben": "bin", "carl": "sys", "dora": "games", "eve": "man",
            "fay": "mail", "stranger": "news"}
OPERATORS = [name for name in ACCOUNTS if name != "stranger"]
# Of each device: list, verify, open, manage; of its services in their order: list, connect, close.
# Allowed, Denied, or Unknown, as are those without a row.
TABLE = {tuple(row.split()[:2]): row.split()[2:] for row in """
    anna gw-b-1 AAAA AAA AAA AAA
    anna gw-m-1 AAAA AAA AAA AAA
    anna gw-m-2 AAAA AAA AAA AAA
    ben  gw-b-1 ADDD AAD UUU UUU
    carl gw-b-1 AADD ADA ADD ADD
    dora gw-b-1 ADDD AAD AAD ADD
    fay  gw-m-1 DDAA DDD DAD UUU
    fay  gw-m-2 DDAA DDD UUU UUU""".strip().splitlines()}


def grant(name, who, devices, services, verbs, **more):
    return {"name": name, "who": [who], "devices": [devices], "services": [services],
            "verbs": verbs.split(), **more}


GRANTS = [
    grant("all", "anna", "*", "*", " ".join(VERBS)),
    grant("shell", "support", "berlin", "ssh_*", "list connect"),
    grant("look", "carl", "berlin", "*", "list"),
    grant("help", "carl", "berlin", "ssh_?", "verify close"),
    grant("work", "dora", "berlin", "*", "list connect"),
    grant("watched", "dora", "berlin", "log_*", "list connect", record=True),
    grant("care", "fay", "munich", "ssh_[a-c]", "open manage"),
    grant("web", "fay", "first", "web_*", "connect", max_session="8h"),
    grant("short", "fay", "first", "web_a", "connect", max_session="1s")]
TOKENS.update({f"door-{name}": new_token() for name in OPERATORS})
POLICY = {
    "operators": [{"name": name, "accounts": [ACCOUNTS[name]],
                   "certificates": [f"{name}@door.test"],
                   "tokens": [token_entry(TOKENS[f"door-{name}"])]} for name in OPERATORS],
    "operator_groups": {"support": ["ben"]},
    "device_groups": {"berlin": {"labels": {"site": "ber*"}}, "munich": {"products": ["pk2"]},
                      "first": {"products": ["pk2"], "names": ["gw-?-1"]}},
    "grants": GRANTS}


def cells(who):
    """Verb, device, service and outcome; each row of the table as the policy decides it."""
    for device in PRODUCTS:
        row = TABLE.get((who, device), ["UUUU"] + ["UUU"] * len(SERVICES))
        for verb, outcome in zip(("list", "verify", "open", "manage"), row[0]):
            yield verb, device, "", outcome
        for service, outcomes in zip(SERVICES, row[1:]):
            for verb, outcome in zip(("list", "connect", "close"), outcomes):
                yield verb, device, service, outcome
            for operation in LIKE_CONNECT if service == SERVICES[0] else ():
                yield operation, device, service, outcomes[1]


def allowed(who, verb):
    return {(device, service) for asked, device, service, outcome in cells(who)
            if (asked, outcome) == (verb, "A")}


# ---- the doors

class Answer:
    def __init__(self, raw, found):
        self.raw, self.json = raw, found
        self.kind = found.get("kind", "ok")


class Session:
    """Its client's end; `ended` is the reason that the client is given."""

    def __init__(self, stream, said, wrap=(b"", b""), number=None):
        self.stream, self.said, self.wrap, self.number = stream, said, wrap, number
        stream.settimeout(10 * SCALE)

    def exchange(self):
        """False when it is cut off instead."""
        with contextlib.suppress(ConnectionError):
            self.stream.sendall(self.wrap[0] + b"hello")
            got = b""
            while len(got) < len(self.wrap[1]) + 5 and (piece := self.stream.recv(99)):
                got += piece
            assert got in (self.wrap[1] + b"hello", b"")
            return bool(got)
        return False

    def ended(self):
        got, found = b"", None
        with contextlib.suppress(ConnectionError):
            while not found and (piece := self.said.recv(4096)):
                got += piece
                found = re.search(rb'\{"(bytes_down|ended)".*?\}', got)
        return found and json.loads(found[0])["ended"]

    def close(self):
        self.stream.close()
        self.said.close()


@contextlib.contextmanager
def account(name):
    """For what the kernel notes of this process."""
    os.seteuid(pwd.getpwnam(ACCOUNTS.get(name, name)).pw_uid)
    try:
        yield
    finally:
        os.seteuid(0)


class ControlSocket:
    name = "socket"

    def __init__(self, world):
        self.world = world

    def send(self, who, do, given, descriptors=()):
        link = socket.socket(socket.AF_UNIX)
        link.settimeout(20 * SCALE)
        with account(who):
            link.connect(str(self.world.control))
        socket.send_fds(link, [json.dumps({"do": do, **given}).encode() + b"\n"], descriptors)
        line = b""
        while not line.endswith(b"\n"):  # what may follow an accepted "connect" comes later
            line += link.recv(1)
        return link, Answer(line, json.loads(line))

    def ask(self, who, do, **given):
        link, answer = self.send(who, do, given)
        link.close()
        return answer

    def connect(self, who, device, service):
        ours, theirs = socket.socketpair()
        with theirs:
            link, answer = self.send(who, "connect", {"device": device, "service": service},
                                     [theirs.fileno()])
        return answer, Session(ours, link, number=answer.json.get("session"))


class Https:
    PATHS = {
        "device": "GET /devices/{device}", "services": "GET /devices/{device}/services",
        "verify": "POST /devices/{device}/verify", "open": "POST /devices/{device}/open",
        "disconnect": "POST /devices/{device}/disconnect", "close": "DELETE /sessions/{session}",
        "can": "GET /can?device={device}&service={service}&verb={verb}", "whoami": "GET /whoami",
        "devices": "GET /devices", "sessions": "GET /sessions", "tokens": "GET /tokens",
        "status": "GET /status", "token-make": "POST /tokens",
        "token-revoke": "DELETE /tokens/{id}",
        "host-keys": "GET /devices/{device}/services/{service}/host-keys",
        "ssh-certificate": "POST /devices/{device}/services/{service}/ssh-certificate"}
    UPGRADE = {"Upgrade": "websocket", "Connection": "Upgrade", "Sec-WebSocket-Version": "13",
               "Sec-WebSocket-Key": "AAAAAAAAAAAAAAAAAAAAAA==",
               "Sec-WebSocket-Protocol": "remote-access.v1"}

    def __init__(self, world, certificates=False):
        self.api, self.certificates, self.open = world.api, certificates, {}
        self.name = "certificate" if certificates else "token"

    def on(self, who):
        return self.api.connection(f"door-{who}" if self.certificates else None)

    def credential(self, who):
        return None if self.certificates else f"door-{who}" if who in OPERATORS else who

    def ask(self, who, do, **given):
        method, path = self.PATHS[do].format(**given).split(" ")
        body = {name: value for name, value in given.items() if name not in ("device", "service")}
        got = self.paced(who, method, path, body if method == "POST" else None)
        named = {name: value for name, value in got.headers.items() if name != "Date"}
        return Answer(json.dumps([got.status, named]).encode() + got.body, got.json)

    def paced(self, who, *request):
        """An operator may ask 50 times a second in the long run."""
        on = self.open.get(who) or self.open.setdefault(who, self.on(who))
        while (got := self.api.ask(*request, who=self.credential(who), on=on)).status == 429:
            time.sleep(0.1)
        return got

    def connect(self, who, device, service):
        connection = self.on(who)
        headers = dict(self.UPGRADE)
        if not self.certificates:
            headers["Authorization"] = "Bearer " + TOKENS.get(f"door-{who}", who)
        path = f"/devices/{device}/services/{service}/connect"
        connection.request("GET", "/api/v1" + path, headers=headers)
        got = connection.getresponse()
        if got.status == 101:
            number = got.headers["Remote-Access-Session"]
            return Answer(b"", {"session": number}), Session(
                connection.sock, connection.sock, (b"\x82\x85\0\0\0\0", b"\x82\x05"), number)
        got.body = got.read()
        self.api.check("GET", path, got)
        named = {name: value for name, value in got.headers.items() if name != "Date"}
        return Answer(json.dumps([got.status, named]).encode() + got.body, got.json), None


class World:
    def __init__(self, launch, certificates, home, folder, echo):
        self.home, self.control, listen, port = home, f"{folder}/control", free_port(), free_port()
        services = [{"type": "TCP", "name": name, "ip": "127.0.0.1", "port": echo}
                    for name in SERVICES]
        self.gateways = launch(**{name: {
            "cloud": listen, "authority": certificates.authority, "services": services, "level": 1,
            "config": {"gw_system_devicename": name, "gw_system_productkey": PRODUCTS[name]}}
            for name in PRODUCTS if name != AWAY})
        self.gateway = self.gateways["gw-b-1"]
        self.ports = {(device, service): free_port()
                      for device in PRODUCTS for service in SERVICES}
        forwards = [part for (device, service), number in self.ports.items()
                    for part in ("--forward", f"{number}={device}/{service}")]
        (home / "operators.json").touch(0o600)
        self.put(POLICY)
        for name in OPERATORS:
            certificates.issue(f"door-{name}", "ca", f"email:{name}@door.test")
        registered = [device_entry(gateway, labels={"site": "berlin" if "-b-" in name else "x"})
                      for name, gateway in self.gateways.items()]
        registered.append(dict(registered[-1], device_name=AWAY))
        start_back_end(
            self.gateway, ("127.0.0.1", listen), certificates.paths(), "--operators",
            home / "operators.json", "--api", f"127.0.0.1:{port}", "--api-client-ca",
            certificates.paths("ca")[0], "--store", home / "store", "--audit", home / "audit",
            "--control", self.control, *forwards, registered=registered)
        self.gateway.beside.wait_for_line("backend", "control socket")
        os.chmod(self.control, 0o666)  # whom it asks is the policy's matter here
        self.api = Api(port, certificates, lambda: self.gateway.log_beside("backend"))
        self.socket = ControlSocket(self)
        self.token, self.certificate = Https(self), Https(self, certificates=True)
        self.doors = [self.token, self.certificate, *([] if ALONE else [self.socket])]
        for gateway in self.gateways.values():
            gateway.log.wait("I", "handshake response code is 0!", seconds=10)
        self.api.document = json.loads(self.api.ask("GET", "/openapi.json", who=None).body)

    def put(self, policy):
        (self.home / "operators.json").write_text(json.dumps(policy))

    @contextlib.contextmanager
    def changed(self, change):
        """With another policy in use."""
        policy = copy.deepcopy(POLICY)
        change(policy)
        self.put(policy)
        assert self.socket.ask("root", "reload").kind == "ok"
        try:
            yield
        finally:
            self.put(POLICY)
            assert self.socket.ask("root", "reload").kind == "ok"

    def audit(self, event, after=0):
        lines = [json.loads(line) for line in (self.home / "audit").read_text().splitlines()]
        return [line for line in lines[after:] if line["event"] == event]

    def denials(self, after):
        """All until now: one more is caused, and waited for."""
        assert self.token.ask("eve", "open", device="last-one").kind == "not-found"
        return poll(lambda: (lines := self.audit("denied", after)) and
                    "last-one" in lines[-1]["reason"] and lines, 5, "the last denial")[:-1]

    def mark(self):
        return len((self.home / "audit").read_text().splitlines())

    def reason(self, number):
        """Why the session has ended, in the audit."""
        return poll(lambda: [line["reason"] for line in self.audit("session_end")
                             if line["session"] == number], 5, "the session's end")[0]

    def forward(self, who, device, service):
        with account(who):
            stream = socket.create_connection(("127.0.0.1", self.ports[device, service]))
        return Session(stream, stream)


@pytest.fixture(scope="module")
def world(launch, certificates, workspace, echo):
    (workspace / "doors").mkdir()
    with tempfile.TemporaryDirectory() as folder:
        os.chmod(folder, 0o755)
        world = World(launch, certificates, workspace / "doors", folder, echo)
        yield world
    log = world.api.log()
    assert world.gateway.beside.running["backend"].poll() is None and "Sanitizer" not in log, log
    text = (world.home / "audit").read_text()
    assert not world.audit("left_out")  # no test's denials are too many
    for line in text.splitlines():
        jsonschema.Draft202012Validator(SCHEMA).validate(json.loads(line))
    assert not [name for name, token in TOKENS.items() if token in text + log]


@pytest.fixture(scope="module")
def held(world):
    """anna's sessions, by device and service."""
    sessions = {(device, service): world.token.connect("anna", device, service)[1]
                for device in PRODUCTS if device != AWAY for service in SERVICES}
    yield sessions
    for session in sessions.values():
        session.close()


@pytest.fixture(params=["socket", "token", "certificate"])
def door(request, world):
    if ALONE and request.param == "socket":
        pytest.skip("only root has more than one account to test with")
    return getattr(world, request.param)


def people(door):
    return ACCOUNTS if door.name == "socket" else OPERATORS


# ---- the table

def request_of(verb, device, service, session):
    """The operation for the verb, with its arguments."""
    if verb in LIKE_CONNECT:
        return verb, {"device": device, "service": service, **LIKE_CONNECT[verb]}
    if verb == "close":
        return "close", {"session": session}
    do = {"list": "device", "manage": "disconnect"}.get(verb, verb)
    account_ = {"user": "root", "password": "hush-hush"} if verb == "verify" else {}
    return do, {"device": device, **account_}


def ask(door, who, verb, device, service, session=None):
    if verb == "connect":
        answer, opened = door.connect(who, device, service)
        if answer.kind == "ok":
            assert opened.exchange()
        if opened:
            opened.close()
        return answer
    do, given = request_of(verb, device, service, session)
    return door.ask(who, do, **given)


def kind_of(outcome, verb, device):
    if outcome != "A":
        return {"D": "denied", "U": "not-found"}[outcome]
    usual = {"list": "ok", "close": "ok", "host-keys": "ok", "open": "not-implemented",
             "ssh-certificate": "not-implemented"}
    return usual.get(verb, "conflict" if device == AWAY else "ok")


def twin_of(who, device, service, session):
    """What does not exist, to ask for like for what is hidden, and how the answers then differ."""
    if session:
        other = session[:-4] + ("0000" if session[-4:] != "0000" else "1111")
        return (device, service, other), (session, other)
    if (who, device) not in TABLE:
        return (NO_DEVICE, service, None), (device, NO_DEVICE)
    return (device, NO_SERVICE, None), (service, NO_SERVICE)


def test_table(world, held, door):
    for who in people(door):
        mark, denied = world.mark(), []
        for verb, device, service, outcome in cells(who):
            if verb == "list" and service or verb == "close" and device == AWAY:
                continue  # see the lists; no session is there
            if verb == "manage" and outcome == "A" and device != AWAY:
                continue  # see the events
            session = held[device, service].number if verb == "close" else None
            answer = ask(door, who, verb, device, service, session)
            assert answer.kind == kind_of(outcome, verb, device), (who, verb, device, service)
            if verb == "close" and outcome == "A":
                assert held[device, service].ended().startswith("closed by ")
                held[device, service] = world.token.connect("anna", device, service)[1]
            place = f"{device}/{service}".strip("/")
            known = (who, device) in TABLE
            # To the audit it says what was meant.
            whys = [place if known or verb == "close" else f"{PRODUCTS[device]}:{device}"]
            if who == "stranger":
                whys = ["no operator has the account news"]
            if outcome == "U":
                twin, (name, other) = twin_of(who, device, service, session)
                same = ask(door, who, verb, *twin).raw
                assert same == answer.raw.replace(name.encode(), other.encode())
                whys.append(f"no grant allows connect to {device}/{NO_SERVICE}" if known and
                            verb != "close" else other)
            if outcome != "A" and verb != "list":
                denied += [(request_of(verb, device, service, session)[0], why) for why in whys]
        lines = world.denials(mark)
        assert len(lines) == len(denied)
        for line, (do, why) in zip(lines, denied):
            assert (line["do"], why in line["reason"]) == (do, True), (line, why)
            assert line["who"] == (who if who in OPERATORS else ACCOUNTS[who])


def test_questions(world, door):
    """What "can" says; asking leaves no line."""
    mark = world.mark()
    for who in people(door):
        for device in "gw-b-1", "gw-m-1":
            for service in SERVICES:
                outcomes = {verb: outcome for verb, *place, outcome in cells(who)
                            if place in ([device, service], [device, ""])}
                twin, (name, other) = twin_of(who, device, service, None)
                for verb in VERBS:
                    answer, same = (door.ask(who, "can", device=place[0], service=place[1],
                                             verb=verb) for place in ((device, service), twin))
                    known = (who, device) in TABLE
                    assert (answer.kind == "not-found") == (not known)
                    if verb in ("list", "connect", "close") or outcomes[verb] != "A":
                        is_allowed = answer.json.get("allowed", False)
                        assert is_allowed == (outcomes[verb] == "A"), (who, verb, device, service)
                    if outcomes["list"] == "U":
                        assert same.raw == answer.raw.replace(name.encode(), other.encode())
    assert not world.denials(mark)


def test_lists(world, held, door):
    mark = world.mark()
    for who in people(door):
        devices = {device for device, service in allowed(who, "list") if not service}
        services = {cell for cell in allowed(who, "list") if cell[1]}
        listed = door.ask(who, "devices").json["devices"]
        assert {row["device"] for row in listed} == devices, who
        assert {(row["device"], row["service"])
                for row in door.ask(who, "sessions").json["sessions"]} == services & set(held), who
        for device in PRODUCTS:
            answer = door.ask(who, "services", device=device)
            assert answer.kind == ("not-found" if (who, device) not in TABLE else "denied" if
                                   device not in devices else "conflict" if device == AWAY else
                                   "ok")
            assert {(device, row["name"]) for row in answer.json.get("services", ())} == {
                cell for cell in services if cell[0] == device != AWAY}, who
        assert {row["operator"] for row in door.ask(who, "tokens").json["tokens"]} == (
            set(OPERATORS) if who == "anna" else {who} & set(OPERATORS))
        assert door.ask(who, "status").kind == ("ok" if who == "anna" else "denied")
        assert door.ask(who, "whoami").json["operator"] == (who if who in OPERATORS else None)
    assert not world.denials(mark)


@pytest.mark.skipif(ALONE, reason="only root has more than one account to test with")
def test_forwarded_ports(world):
    for who in ACCOUNTS:
        mark = world.mark()
        for device, service in world.ports:
            session = world.forward(who, device, service)
            open_ = (device, service) in allowed(who, "connect") and device != AWAY
            assert session.exchange() == open_, (who, device, service)
            session.close()
        assert [line["do"] for line in world.denials(mark)] == ["connect"] * (
            len(world.ports) - len(allowed(who, "connect")))


def test_events(world):
    streams = {name: Events(world.api, f"door-{name}") for name in OPERATORS}
    places = [(device, service) for device in PRODUCTS if device != AWAY for service in SERVICES]
    for device, service in places:
        session = world.token.connect("anna", device, service)[1]
        assert session.exchange()
        session.close()
    assert world.token.ask("anna", "disconnect", device="gw-b-1").kind == "ok"
    for name, stream in streams.items():
        seen = set()
        stream.sock.settimeout(10 * SCALE if name == "anna" else 0.3)
        with contextlib.suppress(TimeoutError):
            while event := stream.next():
                seen.add((event[0], event[1]["device"], event[1].get("service", "")))
                if event[0] == "device-connected":
                    break
        assert seen == {(f"session-{what}", *cell) for cell in places for what in ("begun", "ended")
                        if cell in allowed(name, "list")} | {
                            (f"device-{what}", "gw-b-1", "") for what in ("disconnected",
                                                                          "connected")
                            if ("gw-b-1", "") in allowed(name, "list")}, name


# ---- what ends sessions

@contextlib.contextmanager
def sessions_everywhere(world, who, device, service):
    """One through each door, by the door's name, and their numbers in this order."""
    mark = world.mark()
    sessions = {door.name: door.connect(who, device, service)[1] for door in world.doors}
    if not ALONE:
        sessions["forward"] = world.forward(who, device, service)
    assert all(session.exchange() for session in sessions.values())
    numbers = [line["session"] for line in world.audit("session_begin", mark)]
    assert len(numbers) == len(sessions)
    try:
        yield dict(zip(sessions, numbers)), sessions
    finally:
        for session in sessions.values():
            session.close()


def test_longest_session(world):
    begin, reason = time.monotonic(), "the longest session that a grant allows is over"
    with sessions_everywhere(world, "fay", "gw-m-1", "web_a") as (numbers, sessions):
        for name, session in sessions.items():
            assert session.ended() == (None if name == "forward" else reason)
        assert 1 <= time.monotonic() - begin < 3 * SCALE
        assert [world.reason(number) for number in numbers.values()] == [reason] * len(numbers)


def operator_of(policy, name):
    return next(entry for entry in policy["operators"] if entry["name"] == name)


def take_operator(policy):
    policy["operators"].remove(operator_of(policy, "ben"))
    policy["operator_groups"]["support"] = ["eve"]


NO_GRANT, NO_PROOF = "no grant allows it any more", \
    "what its operator had proved does not hold any more"
EVERY_DOOR = ("socket", "token", "certificate", "forward")


@pytest.mark.parametrize("change, ended, reason", [
    (lambda policy: policy["grants"].pop(1), EVERY_DOOR, NO_GRANT),
    (lambda policy: policy["grants"][1].update(record=True), EVERY_DOOR, NO_GRANT),
    (lambda policy: policy["device_groups"]["berlin"].update(products=["pk2"]), EVERY_DOOR,
     NO_GRANT),
    (take_operator, EVERY_DOOR, NO_PROOF),
    (lambda policy: operator_of(policy, "ben").pop("accounts"), ("socket", "forward"), NO_PROOF),
    (lambda policy: operator_of(policy, "ben").pop("certificates"), ("certificate",), NO_PROOF),
    (lambda policy: operator_of(policy, "ben").pop("tokens"), ("token",), NO_PROOF),
    (lambda policy: policy["grants"].pop(0), (), "")],
    ids=["grant", "record", "group", "operator", "account", "certificate", "token", "other"])
def test_reload_ends_what_is_not_allowed_any_more(world, change, ended, reason):
    with sessions_everywhere(world, "ben", "gw-b-1", "ssh_a") as (numbers, sessions):
        with world.changed(change):
            for name, session in sessions.items():
                if name not in ended:
                    assert session.exchange(), name
                    continue
                assert session.ended() == (None if name == "forward" else reason), name
                assert world.reason(numbers[name]) == reason


def test_revoked_token_ends_what_came_of_it(world):
    def make(who, **more):
        made = world.token.ask(who, "token-make", label="more", **more).json
        assert "token" in made, made
        TOKENS[made["id"]] = made["token"]
        return made

    first = make("ben", days=1)
    second = make(first["token"], days=366)
    assert second["expires"] <= first["expires"] < time.time() + 90000
    other = make("dora")
    sessions = [world.token.connect(token, "gw-b-1", "ssh_a")[1]
                for token in (first["token"], second["token"], "ben", other["token"])]
    mark = world.mark()
    for who in "dora", "carl":  # another's is not there
        refused, same = (world.token.ask(who, "token-revoke", id=number)
                         for number in (first["id"], "0" * len(first["id"])))
        assert refused.kind == "not-found" and same.raw == refused.raw.replace(
            first["id"].encode(), b"0" * len(first["id"]))
    assert ["is one of ben" in line["reason"] for line in world.denials(mark)] == [True, False] * 2
    assert not world.audit("token_revoke", mark)
    assert all(session.exchange() for session in sessions)
    assert set(world.token.ask("ben", "token-revoke", id=first["id"]).json["revoked"]) == {
        first["id"], second["id"]}
    assert [session.ended() for session in sessions[:2]] == [NO_PROOF] * 2
    assert [world.reason(session.number) for session in sessions[:2]] == [NO_PROOF] * 2
    assert all(session.exchange() for session in sessions[2:])
    assert world.token.ask("anna", "token-revoke", id=other["id"]).kind == "ok"
    assert sessions[3].ended() == NO_PROOF
    third = make("ben")
    late = world.token.connect(third["token"], "gw-b-1", "ssh_a")[1]
    successor = [token_entry(new_token())]  # has the label of the one before
    with world.changed(lambda policy: operator_of(policy, "ben").update(tokens=successor)):
        assert late.ended() == NO_PROOF
        assert world.token.ask(third["token"], "whoami").kind == "unauthenticated"
    for session in sessions:
        session.close()


@pytest.mark.skipif(ALONE, reason="only root has more than one account to test with")
def test_who_may_have_files_read_again(world):
    world.denials(0)  # and with them what earlier tests have caused
    mark = world.mark()
    for who in (*ACCOUNTS, "root"):
        assert world.socket.ask(who, "reload").kind == (
            "ok" if who in ("anna", "root") else "denied")
    assert {line["who"] for line in world.denials(mark)} == {
        *OPERATORS, "news"} - {"anna"}
    assert len(world.audit("reload", mark)) == 2


def test_everyone_may_end_his_own(world, door):
    answer, session = door.connect("dora", "gw-b-1", "web_a")
    assert door.ask("dora", "close", session=answer.json["session"]).kind == "ok"
    assert session.ended() == "closed by dora"
    session.close()
