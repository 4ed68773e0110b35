// The frames of RFC 6455 as a client writes and reads them: headers, masking, the accept key.
// No socket, no clock, no state.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace ws {

enum OPCODE : uint8_t {
    OPCODE_CONTINUATION = 0x0,
    OPCODE_TEXT = 0x1,
    OPCODE_BINARY = 0x2,
    OPCODE_CLOSE = 0x8,
    OPCODE_PING = 0x9,
    OPCODE_PONG = 0xA,
};

inline constexpr std::size_t MAX_FRAME_HEADER = 14;
inline constexpr std::size_t MAX_CONTROL_PAYLOAD = 125;
inline constexpr std::size_t MASK_SIZE = 4;
inline constexpr std::size_t NONCE_SIZE = 16;
inline constexpr std::size_t KEY_TEXT_SIZE = 25;    // 16 bytes in base64, and a NUL
inline constexpr std::size_t ACCEPT_TEXT_SIZE = 29; // 20 bytes in base64, and a NUL

struct FRAME_HEADER_T {
    uint8_t opcode;
    bool final;
    uint8_t size; // of the header itself
    uint64_t payload;
};

enum HEADER_RESULT : int32_t { HEADER_COMPLETE, HEADER_INCOMPLETE, HEADER_INVALID };

// Reads a header as a server may send it. On HEADER_INVALID `fault` says why; a header is refused
// as soon as the byte that is wrong has come. A length in a longer form than needed is accepted: it
// means the same.
HEADER_RESULT parseFrameHeader(std::span<const uint8_t> bytes, FRAME_HEADER_T &header,
                               const char *&fault);

// Writes the header of a masked, unfragmented frame and returns its size.
std::size_t buildFrameHeader(uint8_t opcode, uint64_t payload, const uint8_t (&mask)[MASK_SIZE],
                             uint8_t (&dst)[MAX_FRAME_HEADER]);

// Copies and masks in one pass; dst and src may not overlap.
void copyMasked(uint8_t *dst, const uint8_t *src, std::size_t size,
                const uint8_t (&mask)[MASK_SIZE]);

inline bool isControl(uint8_t opcode)
{
    return (opcode & 0x8) != 0;
}

// The key text of a nonce, and the answer that a server owes to a key text. False when the hash is
// not available.
void makeKeyText(const uint8_t (&nonce)[NONCE_SIZE], char (&key)[KEY_TEXT_SIZE]);
bool makeAcceptText(const char (&key)[KEY_TEXT_SIZE], char (&accept)[ACCEPT_TEXT_SIZE]);

} // namespace ws
