"""What the back end may send: odd headers, wrong lengths, fragments, sizes, unknown types."""
import random
import re

import pytest

from harness import cloud
from harness.cloud import DATA_DOWN, MESSAGE_LIMIT, NEW_SESSION, RELEASE, RESPONSE, VERIFY

CUT = "0123456789" * 7  # 70 characters, of which 63 are kept
LENGTHS = "payload length info is error!payloadlen:{}, datalen:{}"

# Messages and the line that says why they were dropped; None for a header that cannot be read.
REJECTED = [
    ('{"msg_type":5,\0"payload_len":0}\r\n\r\n', None),
    ('{"msg_type":5,"payload_len":4}\r\n\r\n12345', LENGTHS.format(4, 5)),
    ('{"msg_type":5,"payload_len":0}', LENGTHS.format(0, -4)),
    ('{"msg_type":5,"payload_len":2147483647}\r\n\r\n', LENGTHS.format(2147483647, 0)),
    ('{"msg_type":7,"payload_len":0}\r\n\r\n', "recv error websocket package! msgType:7 ")]


def test_odd_header_is_accepted(link):
    """The answer to a release request gives away what was read of its identifier and token."""
    link.channel.send_raw((f'{{ "x":true,"payload_len":" 0","token2":"{CUT}","token":"second",'
                           f'"msg_type":"5","msg_id":"{CUT}" }}\r\n\r\n').encode())
    response = link.channel.expect(RESPONSE, CUT[:63])
    assert response.token == CUT[:63]
    assert response.answer == (0, "release session response", f'{{"session_id": "{CUT[:63]}"}}')


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


def test_fragments(link):
    raw, mark = cloud.header(RELEASE, 0, "whole", "t" * 60), link.log.mark()
    link.channel.send_raw(*[raw[at:at + 1] for at in range(len(raw))])
    assert link.channel.expect(RESPONSE, "whole")
    link.channel.settle()
    assert not link.channel.unread
    assert link.log.find("D", "this websocket message not have Fin flag!", mark)


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


def test_message_past_the_buffer_is_lost(link, echo):
    session = link.channel.open(echo)
    raw, _ = message_of_size(MESSAGE_LIMIT + 1, session)
    mark = link.log.mark()
    link.channel.send_raw(raw[:25600], raw[25600:], cloud.header(RELEASE, 0, "smuggled", session))
    link.channel.send(DATA_DOWN, b"next", token=session)  # the request in the rest was none
    assert link.channel.collect(session, 4) == [b"next"]
    link.log.wait("W", "write the cloud channel buffer error!", mark)
