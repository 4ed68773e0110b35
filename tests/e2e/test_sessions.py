"""Sessions: opened, used from both sides, released by either, refused."""
import random
import re

import pytest

from harness.cloud import (DATA_DOWN, DATA_UP, NEW_SESSION, RELEASE, RESPONSE, UP_LIMIT,
                           new_session_request)
from harness.local import LocalService, end_by_reset, start_name_server
from harness.network import FILTERED_ADDRESS
from harness.waiting import poll

ID = re.compile("[a-zA-Z0-9]{30}")
NOT_AVAILABLE = (101671, "BL local service is not available", "null")


def both_ends(link, service):
    session = link.channel.open(service.port)
    return session, service.accept()


@pytest.mark.parametrize("size", [1, 1023, 50172, 50173, 51200, 200000, 1 << 20])
def test_round_trip(link, echo, size):
    session = link.channel.open(echo)
    data = random.Random(size).randbytes(size)
    for start in range(0, size, 51000):
        link.channel.send(DATA_DOWN, data[start:start + 51000], token=session)
    pieces = link.channel.collect(session, size)
    assert b"".join(pieces) == data
    assert max(map(len, pieces)) <= UP_LIMIT


@pytest.mark.parametrize("service", [
    {"name": "ssh_localhost", "kind": "SSH"}, {"name": "unlisted"}, {"ip": "local.test"},
    {"ip": "127.1"}], ids=["listed", "unlisted", "host name", "short address"])
def test_open_and_release_by_the_back_end(link, service):
    local = LocalService()
    opened = link.channel.request(NEW_SESSION, new_session_request(local.port, **service))
    session = opened.token
    assert ID.fullmatch(session)
    assert opened.answer == (0, "new session response", f'{{"session_id": "{session}"}}')
    with local.accept() as connection:
        released = link.channel.release(session)
        assert released.token == session
        assert released.answer == (0, "release session response", opened.answer[2])
        assert connection.recv(1) == b""
    mark = link.log.mark()
    assert link.channel.release(session).answer == released.answer
    link.log.wait("I", f"sessionID:{session} had release!", mark)


@pytest.mark.parametrize("end", ["silent", "talking", "reset"])
def test_release_by_the_service(link, end):
    session, connection = both_ends(link, LocalService())
    mark, line = link.log.mark(), f"release session: {session}"
    if end == "reset":
        end_by_reset(connection)
        line = f"system error:Connection reset by peer, errno:104. local service exit, {line}"
    if end == "talking":
        connection.sendall(b"last words")
    connection.close()
    request = link.channel.expect(RELEASE, token=session)
    assert ID.fullmatch(request.id) and request.payload == b""
    if end == "talking":
        assert link.channel.expect(DATA_UP, token=session).payload == b"last words"
    link.channel.send(RESPONSE, b'{"code": 0}', request.id, session)
    link.channel.send(DATA_DOWN, b"too late", token=session)
    link.channel.settle()
    link.log.in_order([
        ("W", line), ("I", 'recv release session response.payload:{"code": 0}'),
        ("W", f"session id invalid: {session}")], mark)


REFUSED = "connection failed after select with the error: 111"
TIMED_OUT = "connection time out: Service Unavailable or destination port disabled"


@pytest.mark.parametrize("payload, lines", [
    (new_session_request(70000), [("W", REFUSED)]),
    (new_session_request(9, FILTERED_ADDRESS), [("W", TIMED_OUT)]),
    (new_session_request(9, "127.0.0.1 and more"), [("W", "unknown hostAddr: 127.0.0.1 and m")]),
    (b"no json", [("I", "Servier Ip: 127.0.0.1, port: 22"), ("W", REFUSED)])],
    ids=["past 16 bits", "filtered", "cut at 15", "default"])
def test_unreachable_service(link, payload, lines):
    mark = link.log.mark()
    response = link.channel.request(NEW_SESSION, payload)
    assert (response.token, response.answer) == ("", NOT_AVAILABLE)
    link.log.in_order([*lines, ("W", "failed to connect to local service")], mark)


def test_changed_name_server_counts_at_once(connect):
    link = connect("moved", files={"etc/resolv.conf": "nameserver 127.0.0.2\n"})
    service = LocalService()
    request = new_session_request(service.port, "name.example")
    assert link.channel.request(NEW_SESSION, request).answer == NOT_AVAILABLE
    start_name_server("127.0.0.3")
    link.gateway.put("etc/resolv.conf", "nameserver 127.0.0.3\n")
    assert link.channel.request(NEW_SESSION, request).answer[0] == 0


def test_thirty_third_session_is_refused_without_a_connection(link):
    service = LocalService()
    sessions = [both_ends(link, service) for _ in range(32)]
    mark = link.log.mark()
    response = link.channel.request(NEW_SESSION, new_session_request(service.port))
    assert (response.token, response.answer) == ("", (101604, "socketfd insert error", "null"))
    link.log.wait("W", "session table is limited", mark)
    service.listener.settimeout(0)
    with pytest.raises(BlockingIOError):
        service.listener.accept()
    for session, connection in sessions:
        link.channel.send(DATA_DOWN, session.encode(), token=session)
        assert connection.recv(100) == session.encode()
    link.channel.release(sessions[0][0])
    both_ends(link, service)


def test_burst_goes_in_order_though_a_service_ends_meanwhile(link):
    """One readable event drains the channel: what a service does in the meantime, while requests of
    the same burst wait for an address that does not answer, comes between no two messages."""
    session, connection = both_ends(link, LocalService())
    mark, elsewhere = link.log.mark(), new_session_request(9, FILTERED_ADDRESS)
    link.channel.send_at_once(
        (DATA_DOWN, b"one", "d1", session), (NEW_SESSION, elsewhere, "n1", ""),
        (DATA_DOWN, b"two", "d2", session), (NEW_SESSION, elsewhere, "n2", ""),
        (DATA_DOWN, b"three", "d3", session))
    assert connection.recv(100) == b"one"
    connection.close()
    poll(lambda: len(link.channel.unread) >= 3, 10, lambda: f"answers: {link.channel.unread}")
    assert [(message.type, message.id, message.token) for message in link.channel.unread] == [
        (RESPONSE, "n1", ""), (RESPONSE, "n2", ""), (RELEASE, "d3", session)]
    link.channel.unread.clear()
    link.channel.settle()
    link.log.in_order([
        ("D", "Recv signal = 13. Terminating..."), ("I", "socket pipe broken!"),
        ("W", "local service bad: Broken pipe, writenLen:-1"),
        ("W", "local socker error! release this session"),
        ("W", f"release the session: {session}")], mark)
