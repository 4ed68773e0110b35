"""What the back end may send: odd headers, wrong lengths, fragments, sizes, unknown types."""
import random
import re

import pytest

from harness import cloud
from harness.cloud import (DATA_DOWN, HANDSHAKE_ID, MESSAGE_LIMIT, NEW_SESSION, RELEASE, RESPONSE,
                           VERIFY)

CUT = "0123456789" * 7  # 70 characters, of which 63 are kept
LENGTHS = "payload length info is error!payloadlen:{}, datalen:{}"

# A release request gives away what was read of its header: its answer carries the id and the token.
ACCEPTED = [
    ('{ "token":"t", "x":true,"payload_len": 0,"y":"z","msg_id":"a", "msg_type": 5 }', "a", "t"),
    ('{"msg_type":"5","payload_len":" 0","msg_id":123,"token":456}', "123", "456"),
    ('{"msg_type":5,"payload_len":0,"msg_id":"c","token2":"first","token":"second"}', "c", "first"),
    (f'{{"msg_type":5,"payload_len":0,"msg_id":"{CUT}","token":"{CUT}"}}', CUT[:63], CUT[:63])]

# Messages and the line that says why they were dropped; None for a header that cannot be read.
REJECTED = [
    (' {"msg_type":5,"payload_len":0}\r\n\r\n', None), ("{", None), ("{}\r\n\r\n", None),
    ('["msg_type":5,"payload_len":0]\r\n\r\n', None), ('{"msg_type":5,"payload_len":0', None),
    ('{"payload_len":0}\r\n\r\n', None), ('{"msg_type":5,"msg_id":"r"}\r\n\r\n', None),
    ('{"msg_type":5,"token":null,"payload_len":0}\r\n\r\n', None),
    ('{"msg_type":5,\0"payload_len":0}\r\n\r\n', None), ("\nW forged\r\x1b[0m\xff", None),
    ('{"msg_type":5,"payload_len":4}\r\n\r\n12345', LENGTHS.format(4, 5)),
    ('{"msg_type":5,"payload_len":6}\r\n\r\n12345', LENGTHS.format(6, 5)),
    ('{"msg_type":5,"payload_len":0}', LENGTHS.format(0, -4)),
    ('{"msg_type":5,"payload_len":2147483647}\r\n\r\n', LENGTHS.format(2147483647, 0)),
    *[(f'{{"msg_type":{t},"payload_len":0}}\r\n\r\n', f"recv error websocket package! msgType:{t} ")
      for t in (1, 7, 21, 256, 2147483647)]]


@pytest.mark.parametrize("text, msg_id, token", ACCEPTED, ids=range(len(ACCEPTED)))
def test_accepted_header(link, text, msg_id, token):
    link.channel.send_raw(text.encode() + b"\r\n\r\n")
    response = link.channel.expect(RESPONSE, msg_id)
    assert response.token == token
    assert response.answer == (0, "release session response", f'{{"session_id": "{token}"}}')


@pytest.mark.parametrize("text, line", REJECTED, ids=range(len(REJECTED)))
def test_rejected_message(link, text, line):
    mark = link.log.mark()
    link.channel.send_raw(text.encode("latin-1"))
    link.channel.settle()
    assert not link.channel.unread
    for expected in [line] if line else [re.compile("header json formate error:  .*"),
                                         re.compile("parse proxy header failed: .*")]:
        link.log.wait("W", expected, mark)


@pytest.mark.parametrize("msg_type, code", [(NEW_SESSION, 101671), (VERIFY, 101601)])
def test_quoted_negative_length_without_a_separator(link, msg_type, code):
    """Such a length agrees with the data's, which ends before it begins: the payload is empty."""
    link.channel.send_raw(b'{"msg_type":%d,"payload_len":"-4","msg_id":"neg"}' % msg_type)
    assert link.channel.expect(RESPONSE, "neg").answer[0] == code


def release_request(msg_id, filler):
    return (f'{{"msg_id":"{msg_id}","filler":"{"f" * filler}","msg_type":5,"payload_len":0}}'
            '\r\n\r\n').encode()


@pytest.mark.parametrize("cuts", [[20], [10, 30], range(1, 100)], ids=len)
def test_fragments(link, cuts):
    raw, mark = release_request("whole", 60), link.log.mark()
    cuts = [0, *cuts, len(raw)]
    link.channel.send_raw(*[raw[start:end] for start, end in zip(cuts, cuts[1:])])
    assert link.channel.expect(RESPONSE, "whole")
    link.channel.settle()
    assert not link.channel.unread
    assert link.log.find("D", "this websocket message not have Fin flag!", mark)


def test_many_messages_in_one_write(link):
    link.channel.send_at_once(*((RELEASE, b"", f"many-{n}", "nobody") for n in range(200)))
    for number in range(200):
        assert link.channel.expect(RESPONSE).id == f"many-{number}"


def message_of_size(size, token):
    payload = random.Random(size).randbytes(size - len(cloud.header(DATA_DOWN, size, token=token)))
    return cloud.header(DATA_DOWN, len(payload), token=token) + payload, payload


def test_largest_message(link, echo):
    session = link.channel.open(echo)
    raw, payload = message_of_size(MESSAGE_LIMIT, session)
    assert len(raw) == MESSAGE_LIMIT
    for pieces in ([raw], [raw[:25600], raw[25600:]]):
        link.channel.send_raw(*pieces)
        assert b"".join(link.channel.collect(session, len(payload))) == payload


@pytest.mark.parametrize("size", [MESSAGE_LIMIT + 1, 65526, 70000, 1 << 21])
@pytest.mark.parametrize("pieces", [1, 3])
def test_message_past_the_buffer_is_lost(link, echo, size, pieces):
    session = link.channel.open(echo)
    raw, _ = message_of_size(size, session)
    mark, step = link.log.mark(), size // pieces + 1
    link.channel.send_raw(*[raw[start:start + step] for start in range(0, size, step)],
                          cloud.header(RELEASE, 0, "smuggled", session))
    link.channel.send(DATA_DOWN, b"next", token=session)  # the request in the rest was none
    assert link.channel.collect(session, 4) == [b"next"]
    link.log.wait("W", "write the cloud channel buffer error!", mark)


def test_responses_and_pongs_out_of_turn(link):
    mark = link.log.mark()
    link.channel.send(RESPONSE, b'{"code": 0}', HANDSHAKE_ID)
    link.channel.send_raw(
        b'{"msg_type":257,"payload_len":0,"msg_id":"p","timestamp":1600000000}\r\n\r\n')
    link.channel.settle()
    link.log.in_order([
        ("W", "cloud channel handshake in a error state, now state:2"),
        ("I", "recv keepalive pong,messagID=p,timestamp:1600000000")], mark)
