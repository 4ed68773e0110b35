#include "keep/stream.h"

#include "keep/crc32c.h"

#include <algorithm>

namespace keep {

static std::uint64_t wholeSize(const KEPT_STREAM_T &stream)
{
    return stream.outgoing.end() + (stream.has_end ? 1 : 0);
}

std::uint64_t received(const KEPT_STREAM_T &stream)
{
    return stream.incoming.end() + (stream.is_peer_end_passed ? 1 : 0);
}

std::uint64_t sendable(const KEPT_STREAM_T &stream)
{
    const std::uint64_t to = std::min(stream.outgoing.end(), stream.limit);
    return to > stream.sent ? to - stream.sent : 0;
}

std::uint64_t unsent(const KEPT_STREAM_T &stream)
{
    return stream.outgoing.end() > stream.sent ? stream.outgoing.end() - stream.sent : 0;
}

bool isEndDue(const KEPT_STREAM_T &stream)
{
    return stream.has_end && stream.sent == stream.outgoing.end() && !stream.is_end_taken;
}

bool isWhole(const KEPT_STREAM_T &stream)
{
    return stream.is_end_taken && stream.is_peer_end_passed;
}

bool isWaiting(const KEPT_STREAM_T &stream)
{
    const std::uint64_t known = stream.outgoing.begin() + (stream.is_end_taken ? 1 : 0);
    return stream.sent > known || (unsent(stream) > 0 && sendable(stream) == 0);
}

bool takeAcknowledgement(KEPT_STREAM_T &stream, const FRAME_T &frame)
{
    const std::uint64_t known = stream.outgoing.begin() + (stream.is_end_taken ? 1 : 0);
    const std::uint64_t told = frame.acknowledged;
    if (told < known || told > stream.most_sent || told > wholeSize(stream)) return false;
    const std::uint64_t bytes = std::min(told, stream.outgoing.end());
    stream.outgoing.dropTo(bytes);
    stream.is_end_taken = stream.has_end && told > stream.outgoing.end();
    stream.sent = std::max(stream.sent, told);
    stream.limit = std::max(stream.limit, bytes + frame.window);
    return true;
}

bool resumeStream(KEPT_STREAM_T &stream, const FRAME_T &first)
{
    if (!takeAcknowledgement(stream, first)) return false;
    stream.sent = first.acknowledged;
    return true;
}

void loseCarrier(KEPT_STREAM_T &stream)
{
    stream.sent = stream.outgoing.begin() + (stream.is_end_taken ? 1 : 0);
    stream.told = 0;
    // Not acknowledged yet: it comes again.
    stream.has_peer_end = stream.is_peer_end_passed;
}

bool isNext(const KEPT_STREAM_T &stream, const FRAME_T &frame)
{
    return frame.offset == stream.incoming.end() + (stream.has_peer_end ? 1 : 0);
}

bool mayTakeData(const KEPT_STREAM_T &stream, const FRAME_T &frame)
{
    return !stream.has_peer_end && frame.size > 0 && frame.offset + frame.size <= stream.promised;
}

bool takeEnd(KEPT_STREAM_T &stream, const FRAME_T &frame)
{
    if (stream.has_peer_end || frame.size > 0) return false;
    stream.has_peer_end = true;
    return true;
}

// The end of the window that can be given now.
static std::uint64_t windowEnd(const KEPT_STREAM_T &stream)
{
    const std::size_t held = stream.incoming.size();
    const std::uint64_t free = stream.window > held ? stream.window - held : 0;
    return std::max(stream.promised, stream.incoming.end() + free);
}

std::uint64_t untoldWindow(const KEPT_STREAM_T &stream)
{
    return windowEnd(stream) - stream.promised;
}

FRAME_T makeFrame(KEPT_STREAM_T &stream, FRAME kind)
{
    FRAME_T frame;
    frame.kind = kind;
    frame.offset = stream.sent;
    frame.acknowledged = received(stream);
    stream.promised = windowEnd(stream);
    frame.window = static_cast<std::uint32_t>(stream.promised - stream.incoming.end());
    stream.told = frame.acknowledged;
    return frame;
}

FRAME_T makeData(KEPT_STREAM_T &stream, std::size_t most, std::span<const std::uint8_t> &payload)
{
    const std::uint64_t room = std::min<std::uint64_t>(sendable(stream), most);
    payload = stream.outgoing.piece(stream.sent, static_cast<std::size_t>(room));
    FRAME_T frame = makeFrame(stream, FRAME::DATA);
    frame.size = static_cast<std::uint16_t>(payload.size());
    frame.payload_crc = crc32c(payload);
    stream.sent += payload.size();
    stream.most_sent = std::max(stream.most_sent, stream.sent);
    if (stream.sent == stream.limit && unsent(stream) > 0) frame.flags |= WINDOW_IS_SHORT;
    return frame;
}

FRAME_T makeEnd(KEPT_STREAM_T &stream)
{
    const FRAME_T frame = makeFrame(stream, FRAME::END);
    ++stream.sent;
    stream.most_sent = std::max(stream.most_sent, stream.sent);
    return frame;
}

} // namespace keep
