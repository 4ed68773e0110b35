#include "platform/nopoll/websocket_codec.h"

#include <cstring>
#include <openssl/evp.h>

namespace ws {
namespace {

constexpr uint8_t FIN_BIT = 0x80;
constexpr uint8_t RSV_BITS = 0x70;
constexpr uint8_t OPCODE_BITS = 0x0F;
constexpr uint8_t MASK_BIT = 0x80;
constexpr uint8_t LENGTH_BITS = 0x7F;
constexpr uint8_t LENGTH_IN_16_BITS = 126;
constexpr uint8_t LENGTH_IN_64_BITS = 127;
constexpr char ACCEPT_GUID[] = "258EAFA5-E914-47DA-95CA-C5AB0DC85B11";

const char *faultOfFirstByte(uint8_t byte)
{
    const uint8_t opcode = byte & OPCODE_BITS;
    if ((byte & RSV_BITS) != 0) return "reserved bits are set";
    const bool known = opcode <= OPCODE_BINARY || (opcode >= OPCODE_CLOSE && opcode <= OPCODE_PONG);
    if (!known) return "reserved opcode";
    if (isControl(opcode) && (byte & FIN_BIT) == 0) return "fragmented control frame";
    return nullptr;
}

const char *faultOfSecondByte(uint8_t opcode, uint8_t byte)
{
    if ((byte & MASK_BIT) != 0) return "masked frame";
    if (isControl(opcode) && byte > MAX_CONTROL_PAYLOAD) return "oversize control frame";
    return nullptr;
}

} // namespace

HEADER_RESULT parseFrameHeader(std::span<const uint8_t> bytes, FRAME_HEADER_T &header,
                               const char *&fault)
{
    if (bytes.empty()) return HEADER_INCOMPLETE;
    fault = faultOfFirstByte(bytes[0]);
    if (fault) return HEADER_INVALID;
    if (bytes.size() < 2) return HEADER_INCOMPLETE;
    header.opcode = bytes[0] & OPCODE_BITS;
    header.final = (bytes[0] & FIN_BIT) != 0;
    fault = faultOfSecondByte(header.opcode, bytes[1]);
    if (fault) return HEADER_INVALID;

    const uint8_t length = bytes[1] & LENGTH_BITS;
    const std::size_t extra = length == LENGTH_IN_64_BITS ? 8 : length == LENGTH_IN_16_BITS ? 2 : 0;
    if (bytes.size() < 2 + extra) return HEADER_INCOMPLETE;
    header.size = static_cast<uint8_t>(2 + extra);
    header.payload = extra == 0 ? length : 0;
    for (const uint8_t byte : bytes.subspan(2, extra))
        header.payload = header.payload << 8 | byte;
    if (header.payload >> 63 != 0) fault = "frame length above 2^63";
    return fault ? HEADER_INVALID : HEADER_COMPLETE;
}

std::size_t buildFrameHeader(uint8_t opcode, uint64_t payload, const uint8_t (&mask)[MASK_SIZE],
                             uint8_t (&dst)[MAX_FRAME_HEADER])
{
    const std::size_t extra = payload > UINT16_MAX ? 8 : payload > MAX_CONTROL_PAYLOAD ? 2 : 0;
    const uint64_t length = extra == 8   ? LENGTH_IN_64_BITS
                            : extra == 2 ? LENGTH_IN_16_BITS
                                         : payload;
    dst[0] = FIN_BIT | opcode;
    dst[1] = static_cast<uint8_t>(MASK_BIT | length);
    for (std::size_t i = 0; i < extra; ++i)
        dst[2 + i] = static_cast<uint8_t>(payload >> (8 * (extra - 1 - i)));
    std::memcpy(dst + 2 + extra, mask, MASK_SIZE);
    return 2 + extra + MASK_SIZE;
}

void copyMasked(uint8_t *dst, const uint8_t *src, std::size_t size,
                const uint8_t (&mask)[MASK_SIZE])
{
    uint8_t repeated[8];
    for (std::size_t i = 0; i < sizeof repeated; ++i)
        repeated[i] = mask[i % MASK_SIZE];
    uint64_t wide;
    std::memcpy(&wide, repeated, sizeof wide);

    std::size_t done = 0;
    for (; done + 4 * sizeof wide <= size;
         done += 4 * sizeof wide) { // the compiler makes vectors of it
        uint64_t words[4];
        std::memcpy(words, src + done, sizeof words);
        for (uint64_t &word : words)
            word ^= wide;
        std::memcpy(dst + done, words, sizeof words);
    }
    for (; done < size; ++done)
        dst[done] = src[done] ^ mask[done % MASK_SIZE];
}

void makeKeyText(const uint8_t (&nonce)[NONCE_SIZE], char (&key)[KEY_TEXT_SIZE])
{
    uint8_t text[KEY_TEXT_SIZE];
    EVP_EncodeBlock(text, nonce, sizeof nonce);
    std::memcpy(key, text, sizeof key);
}

bool makeAcceptText(const char (&key)[KEY_TEXT_SIZE], char (&accept)[ACCEPT_TEXT_SIZE])
{
    uint8_t source[KEY_TEXT_SIZE - 1 + sizeof ACCEPT_GUID - 1];
    std::memcpy(source, key, KEY_TEXT_SIZE - 1);
    std::memcpy(source + KEY_TEXT_SIZE - 1, ACCEPT_GUID, sizeof ACCEPT_GUID - 1);
    uint8_t digest[EVP_MAX_MD_SIZE];
    unsigned int size = 0;
    if (EVP_Digest(source, sizeof source, digest, &size, EVP_sha1(), nullptr) != 1) return false;
    uint8_t text[ACCEPT_TEXT_SIZE];
    EVP_EncodeBlock(text, digest, static_cast<int>(size));
    std::memcpy(accept, text, sizeof accept);
    return true;
}

} // namespace ws
