// Numbers in frames: most significant byte first.
#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>

namespace keep {

template <class Number> Number readNumber(const std::uint8_t *bytes) noexcept
{
    static_assert(std::is_unsigned_v<Number>);
    std::uint64_t number = 0;
    for (std::size_t index = 0; index < sizeof(Number); ++index)
        number = number << 8 | bytes[index];
    return static_cast<Number>(number);
}

template <class Number> void writeNumber(std::uint8_t *bytes, Number number) noexcept
{
    static_assert(std::is_unsigned_v<Number>);
    for (std::size_t index = sizeof(Number); index > 0; --index) {
        bytes[index - 1] = static_cast<std::uint8_t>(number & 0xffU);
        number = static_cast<Number>(static_cast<std::uint64_t>(number) >> 8);
    }
}

} // namespace keep
