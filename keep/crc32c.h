// CRC-32C (RFC 3720, appendix B.4): finds what a carrier has dropped from a stream of frames. It is
// no protection against an attacker.
// Threads  none of it keeps state, except tables that are constant.
#pragma once

#include <cstdint>
#include <span>

namespace keep {

// before: the value of the bytes in front of these; 0 for none.
std::uint32_t crc32c(std::span<const std::uint8_t> bytes, std::uint32_t before = 0) noexcept;

// The same without the processor's own instruction, for tests.
std::uint32_t crc32cByTable(std::span<const std::uint8_t> bytes, std::uint32_t before = 0) noexcept;

} // namespace keep
