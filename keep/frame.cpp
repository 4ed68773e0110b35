#include "keep/frame.h"

#include "keep/byte_order.h"
#include "keep/crc32c.h"

namespace keep {

constexpr std::size_t CRC_AT = 28;

FrameHeader buildHeader(const FRAME_T &frame) noexcept
{
    FrameHeader bytes;
    bytes[0] = static_cast<std::uint8_t>(frame.kind);
    bytes[1] = frame.flags;
    writeNumber(&bytes[2], frame.size);
    writeNumber(&bytes[4], frame.payload_crc);
    writeNumber(&bytes[8], frame.offset);
    writeNumber(&bytes[16], frame.acknowledged);
    writeNumber(&bytes[24], frame.window);
    writeNumber(&bytes[CRC_AT], crc32c(std::span(bytes).first(CRC_AT)));
    return bytes;
}

bool parseHeader(std::span<const std::uint8_t> bytes, FRAME_T &frame) noexcept
{
    if (crc32c(bytes.first(CRC_AT)) != readNumber<std::uint32_t>(&bytes[CRC_AT])) return false;
    const std::uint8_t kind = bytes[0];
    if (kind < static_cast<std::uint8_t>(FRAME::HELLO) ||
        kind > static_cast<std::uint8_t>(FRAME::DONE))
        return false;
    frame.kind = static_cast<FRAME>(kind);
    frame.flags = bytes[1];
    frame.size = readNumber<std::uint16_t>(&bytes[2]);
    frame.payload_crc = readNumber<std::uint32_t>(&bytes[4]);
    frame.offset = readNumber<std::uint64_t>(&bytes[8]);
    frame.acknowledged = readNumber<std::uint64_t>(&bytes[16]);
    frame.window = readNumber<std::uint32_t>(&bytes[24]);
    return frame.size <= PAYLOAD_MAX;
}

} // namespace keep
