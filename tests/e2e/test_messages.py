"""What the back end may send: odd headers, wrong lengths, fragments, sizes, unknown types."""
import random
import re
import time

import pytest
from websockets.frames import Opcode

from harness import cloud
from harness.cloud import DATA_DOWN, HANDSHAKE_ID, MESSAGE_LIMIT, NEW_SESSION, PONG, RELEASE, RESPONSE, VERIFY

CUT = "0123456789" * 7  # 70 characters, of which 63 are kept
SEPARATOR = "\r\n\r\n"
LENGTH_LINE = "payload length info is error!payloadlen:{}, datalen:{}"

# A release request gives away what was read of its header: its answer carries the id and the token.
ACCEPTED = {
    "this order": ('{"msg_type":5,"payload_len":0,"msg_id":"a1","token":"t1"}', "a1", "t1"),
    "other order, other keys": ('{ "token":"t2", "x":true,"payload_len": 0,"y":"z","msg_id":"a2", "msg_type": 5 }', "a2", "t2"),
    "quoted numbers": ('{"msg_type":"5","payload_len":" 0","msg_id":"a3","token":"t3"}', "a3", "t3"),
    "unquoted texts": ('{"msg_type":5,"payload_len":0,"msg_id":123,"token":456}', "123", "456"),
    "minus sign skipped": ('{"msg_type":-5,"payload_len":-0,"msg_id":"a4","token":"t4"}', "a4", "t4"),
    "key with a known beginning": ('{"msg_type":5,"payload_len":0,"msg_id":"a5","token2":"t5","token":"no"}', "a5", "t5"),
    "empty value skipped": ('{"msg_type":5,"payload_len":0,"msg_id":"a6","token":"","token_x":"t6"}', "a6", "t6"),
    "no token": ('{"msg_type":5,"payload_len":0,"msg_id":"a7"}', "a7", ""),
    "cut at 63": (f'{{"msg_type":5,"payload_len":0,"msg_id":"{CUT}","token":"{CUT}"}}', CUT[:63], CUT[:63]),
    "long keys": (f'{{"{"k" * 3000}":1,"msg_type":5,"payload_len":0,"msg_id":"a8","token":"t8"}}', "a8", "t8"),
}

# message: the log line that tells why it was dropped; None for a header that cannot be read
REJECTED = {
    "blank first": (' {"msg_type":5,"payload_len":0}' + SEPARATOR, None),
    "other bracket": ('["msg_type":5,"payload_len":0]' + SEPARATOR, None),
    "no brace": ('{"msg_type":5,"payload_len":0' + SEPARATOR, None),
    "only a brace": ("{", None),
    "nothing in it": ("{}" + SEPARATOR, None),
    "no type": ('{"payload_len":0}' + SEPARATOR, None),
    "no length": ('{"msg_type":5,"msg_id":"r"}' + SEPARATOR, None),
    "null eats the next key": ('{"msg_type":5,"token":null,"payload_len":0}' + SEPARATOR, None),
    "NUL in the header": ('{"msg_type":5,\0"payload_len":0}' + SEPARATOR, None),
    "forged line": ("\nW forged\r\x1b[0m\xff", None),
    "payload longer": ('{"msg_type":5,"payload_len":4}' + SEPARATOR + "12345", LENGTH_LINE.format(4, 5)),
    "payload shorter": ('{"msg_type":5,"payload_len":6}' + SEPARATOR + "12345", LENGTH_LINE.format(6, 5)),
    "no separator": ('{"msg_type":5,"payload_len":0}', LENGTH_LINE.format(0, -4)),
    "half a separator": ('{"msg_type":5,"payload_len":1}\r\n', LENGTH_LINE.format(1, -2)),
    "huge length": ('{"msg_type":5,"payload_len":2147483647}' + SEPARATOR, LENGTH_LINE.format(2147483647, 0)),
    **{f"type {t}": (f'{{"msg_type":{t},"payload_len":0}}' + SEPARATOR, f"recv error websocket package! msgType:{t} ")
       for t in (1, 2, 3, 7, 21, 23, 256, 258, 2147483647)},
}


@pytest.mark.parametrize("case", ACCEPTED)
def test_accepted_header(link, case):
    text, msg_id, token = ACCEPTED[case]
    link.channel.send_raw((text + SEPARATOR).encode())
    response = link.channel.expect(RESPONSE, msg_id)
    assert response.token == token
    assert response.answer == (0, "release session response", f'{{"session_id": "{token}"}}')


@pytest.mark.parametrize("case", REJECTED)
def test_rejected_message(link, case):
    text, line = REJECTED[case]
    mark = link.gateway.log.mark()
    link.channel.send_raw(text.encode("latin-1"))
    link.channel.settle()
    assert not link.channel.unread
    lines = [re.compile(start + ".*") for start in ("header json formate error:  ", "parse proxy header failed: ")]
    for expected in [line] if line else lines:
        link.gateway.log.wait("W", expected, mark)


def test_quoted_negative_length_without_a_separator(link):
    """Such a length agrees with the data's, which ends before it begins: the payload is empty."""
    link.channel.send_raw(b'{"msg_type":4,"payload_len":"-4","msg_id":"neg"}')
    assert link.channel.expect(RESPONSE, "neg").answer[0] == 101671
    link.channel.send_raw(b'{"msg_type":6,"payload_len":"-4","msg_id":"neg"}')
    assert link.channel.expect(RESPONSE, "neg").answer[0] == 101601


def release_request(msg_id, filler=0):
    return (f'{{"msg_id":"{msg_id}","filler":"{"f" * filler}","msg_type":5,"token":"frag","payload_len":0}}'
            + SEPARATOR).encode()


@pytest.mark.parametrize("pieces", [[20], [1, 2], [10, 30], [70, 90], list(range(1, 100))], ids=str)
def test_fragments(link, pieces):
    raw = release_request("fragments", 30)
    mark = link.gateway.log.mark()
    cuts = [0, *pieces, len(raw)]
    link.channel.send_raw(*[raw[a:b] for a, b in zip(cuts, cuts[1:])])
    assert link.channel.expect(RESPONSE, "fragments").token == "frag"
    link.channel.settle()
    assert not link.channel.unread
    assert link.gateway.log.find("D", "this websocket message not have Fin flag!", mark)


def test_frames_in_pieces_on_the_wire(link):
    """Two messages, one of them fragmented around a ping, cut at arbitrary bytes."""
    first, second = release_request("one", 200), release_request("two", 40000)
    stream = (cloud.frame(first[:50], fin=False) + cloud.frame(b"ping", Opcode.PING)
              + cloud.frame(first[50:], Opcode.CONT) + cloud.frame(second))
    chance, start = random.Random(7), 0
    while start < len(stream):
        end = start + (1 if start < 300 else chance.randrange(1, 20000))
        link.channel.write(stream[start:end])
        start = end
        time.sleep(0.001)  # so that the pieces do not travel together
    assert link.channel.expect(RESPONSE, "one") and link.channel.expect(RESPONSE, "two")
    link.channel.ping(b"answered with the same payload")


def test_many_messages_in_one_write(link):
    link.channel.send_together(*[release_request(f"many-{n}") for n in range(200)])
    for number in range(200):
        assert link.channel.expect(RESPONSE).id == f"many-{number}"


def message_of_size(size, token):
    head = cloud.header(DATA_DOWN, 99999, token=token)
    payload = random.Random(size).randbytes(size - len(head))
    return cloud.header(DATA_DOWN, len(payload), token=token) + payload, payload


def test_largest_message(link, echo):
    session = link.channel.open(echo.port)
    raw, payload = message_of_size(MESSAGE_LIMIT, session)
    assert len(raw) == MESSAGE_LIMIT
    for pieces in ([raw], [raw[:25600], raw[25600:]]):
        link.channel.send_raw(*pieces)
        assert b"".join(link.channel.collect(session, len(payload))) == payload


@pytest.mark.parametrize("size, pieces", [(MESSAGE_LIMIT + 1, 1), (MESSAGE_LIMIT + 1, 3), (70000, 1), (200000, 1),
                                          (1 << 21, 4)])
def test_message_past_the_buffer_is_lost(link, echo, size, pieces):
    session = link.channel.open(echo.port)
    raw, _ = message_of_size(size, session)
    mark, step = link.gateway.log.mark(), size // pieces + 1
    link.channel.send_raw(*[raw[start:start + step] for start in range(0, size, step)])
    link.channel.send(DATA_DOWN, b"next", token=session)
    assert link.channel.collect(session, 4) == [b"next"]
    link.gateway.log.wait("W", "write the cloud channel buffer error!", mark)


def test_second_handshake_response(link):
    mark = link.gateway.log.mark()
    link.channel.send(RESPONSE, b'{"code": 0}', HANDSHAKE_ID)
    link.gateway.log.wait("W", "cloud channel handshake in a error state, now state:2", mark)


def test_pong_is_logged_with_its_timestamp(link):
    link.channel.send_raw(b'{"msg_type":257,"payload_len":0,"msg_id":"p","timestamp":1600000000}\r\n\r\n')
    link.gateway.log.wait("I", "recv keepalive pong,messagID=p,timestamp:1600000000")


def test_mutated_messages_do_no_harm(link, echo):
    """Whatever arrives, the channel lives, and the bytes of an open session stay its own."""
    session = link.channel.open(echo.port)
    seeds = [cloud.header(t, len(p), "seed", token) + p
             for t, p, token in ((RELEASE, b"", "x"), (DATA_DOWN, b"data", "y"), (PONG, b"", ""), (RESPONSE, b"{}", "z"),
                                 (VERIFY, b'{"username":"nobody","password":"p"}', ""), (NEW_SESSION, b"{}", ""))]
    chance = random.Random(20261122)
    for _ in range(400):
        raw = bytearray(chance.choice(seeds))
        for _ in range(chance.randrange(1, 6)):
            position = chance.randrange(len(raw))
            if chance.random() < 0.5:
                raw[position] = chance.randrange(256)
            else:
                del raw[position:position + chance.randrange(1, 12)]
                raw += b"}" if chance.random() < 0.3 else b""
        link.channel.send_raw(bytes(raw))
    link.channel.send(DATA_DOWN, b"still here", token=session)
    assert link.channel.collect(session, 10, seconds=60) == [b"still here"]
