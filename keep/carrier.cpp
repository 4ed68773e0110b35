#include "keep/carrier.h"

#include "keep/crc32c.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <sys/socket.h>
#include <sys/uio.h>

namespace keep {

READING_T readCarrier(CARRIER_T &carrier, std::span<std::uint8_t> buffer)
{
    const std::size_t before = carrier.partial.size();
    std::copy(carrier.partial.begin(), carrier.partial.end(), buffer.begin());
    const auto room = buffer.subspan(before);
    ssize_t count = -1;
    do
        count = ::recv(carrier.fd.get(), room.data(), room.size(), MSG_DONTWAIT);
    while (count < 0 && errno == EINTR);
    if (count == 0) return {{}, CARRIER_CLOSED};
    if (count < 0 && errno != EAGAIN) return {{}, "it broke"};
    if (count < 0) count = 0;
    carrier.partial.clear();
    return {buffer.first(before + static_cast<std::size_t>(count)), nullptr};
}

void keepPartial(CARRIER_T &carrier, std::span<const std::uint8_t> bytes)
{
    carrier.partial.assign(bytes.begin(), bytes.end());
}

TAKEN takeFrame(std::span<const std::uint8_t> &bytes, FRAME_T &frame,
                std::span<const std::uint8_t> &payload)
{
    if (bytes.size() < HEADER_SIZE) return TAKEN::NONE;
    if (!parseHeader(bytes.first(HEADER_SIZE), frame)) return TAKEN::DAMAGED;
    if (bytes.size() - HEADER_SIZE < frame.size) return TAKEN::NONE;
    payload = bytes.subspan(HEADER_SIZE, frame.size);
    if (frame.size > 0 && crc32c(payload) != frame.payload_crc) return TAKEN::DAMAGED;
    bytes = bytes.subspan(HEADER_SIZE + frame.size);
    return TAKEN::FRAME;
}

// How many the socket has taken; -1: it is gone.
static ssize_t sendParts(int fd, std::span<iovec> parts)
{
    msghdr message{};
    message.msg_iov = parts.data();
    message.msg_iovlen = parts.size();
    for (;;) {
        const ssize_t count = ::sendmsg(fd, &message, MSG_DONTWAIT | MSG_NOSIGNAL);
        if (count >= 0) return count;
        if (errno == EINTR) continue;
        return errno == EAGAIN || errno == ENOBUFS ? 0 : -1;
    }
}

bool sendPending(CARRIER_T &carrier)
{
    if (!isBlocked(carrier)) return true;
    iovec part{carrier.pending.data() + carrier.pending_at,
               carrier.pending.size() - carrier.pending_at};
    const ssize_t count = sendParts(carrier.fd.get(), {&part, 1});
    if (count < 0) return false;
    carrier.pending_at += static_cast<std::size_t>(count);
    if (isBlocked(carrier)) return true;
    carrier.pending = {};
    carrier.pending_at = 0;
    return true;
}

bool sendFrames(CARRIER_T &carrier, std::span<const FRAME_BYTES_T> frames)
{
    std::array<iovec, 2 * FRAMES_MAX> parts;
    std::size_t count = 0;
    const auto part = [&](std::span<const std::uint8_t> bytes) {
        // sendmsg(2) does not write to it.
        if (!bytes.empty())
            parts[count++] = {const_cast<std::uint8_t *>(bytes.data()), bytes.size()};
    };
    for (const FRAME_BYTES_T &frame : frames) {
        part(frame.header);
        part(frame.payload);
    }
    ssize_t taken = 0;
    if (!isBlocked(carrier)) taken = sendParts(carrier.fd.get(), std::span(parts).first(count));
    if (taken < 0) return false;
    auto skipped = static_cast<std::size_t>(taken);
    for (const iovec &bytes : std::span(parts).first(count)) {
        const std::size_t done = std::min(skipped, bytes.iov_len);
        skipped -= done;
        const auto *const from = static_cast<const std::uint8_t *>(bytes.iov_base);
        carrier.pending.insert(carrier.pending.end(), from + done, from + bytes.iov_len);
    }
    return true;
}

} // namespace keep
