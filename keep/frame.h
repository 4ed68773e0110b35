// The frames that both ends of a kept session exchange behind the opening. docs/keeper.md has every
// byte.
// Threads  none of it keeps state.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

namespace keep {

constexpr std::uint8_t PROTOCOL_VERSION = 1;
constexpr std::size_t HEADER_SIZE = 32;
constexpr std::size_t PAYLOAD_MAX = 16384;
constexpr std::uint32_t INITIAL_WINDOW = 65536; // that either end takes before it has said so

enum class FRAME : std::uint8_t {
    HELLO = 1,   // operator's end, first; payload: version
    WELCOME = 2, // keeper, first; payload: version
    REFUSED = 3, // keeper, instead; payload: REFUSAL, text
    DATA = 4,
    ACK = 5,   // nothing but its header
    END = 6,   // the sender's stream is over at this offset
    RESET = 7, // the sender's stream is broken: the session is over; payload: text
    DONE = 8,  // operator's end: both streams are whole, the keeper may forget the session
};

enum class REFUSAL : std::uint8_t {
    VERSION = 1, // of the opening or of HELLO; a plain session is the way out
    FULL = 2,    // no room, or it cannot be kept; a plain session is the way out
    SERVICE = 3, // not in the gateway's list, or it takes no connection
    UNKNOWN = 4, // nothing to resume: ended, forgotten, or another operator's
    ENDED = 5,   // the session is over; the text says why
    WHOLE = 6,   // it is over, and both streams had arrived with their ends
};

// Flags. Of DATA: the sender has more than the receiver's window lets through. Of ACK: to be
// answered at once.
constexpr std::uint8_t WINDOW_IS_SHORT = 1;
constexpr std::uint8_t ANSWER_WANTED = 2;

struct FRAME_T {
    FRAME kind = FRAME::ACK;
    std::uint8_t flags = 0;
    std::uint16_t size = 0;         // of the payload
    std::uint32_t payload_crc = 0;  // CRC-32C
    std::uint64_t offset = 0;       // of the payload's first byte in the sender's stream
    std::uint64_t acknowledged = 0; // what the sender has received; the end counts as a byte
    std::uint32_t window = 0;       // bytes that it takes beyond these
};

using FrameHeader = std::array<std::uint8_t, HEADER_SIZE>;

FrameHeader buildHeader(const FRAME_T &frame) noexcept;
// bytes: HEADER_SIZE. False when it is damaged.
bool parseHeader(std::span<const std::uint8_t> bytes, FRAME_T &frame) noexcept;

} // namespace keep
