// Bounded text: the only helpers through which fixed text fields and buffers are filled, and the
// one number conversion.
// Threads  none of them keeps state.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

// Copies at most size - 1 bytes of src and fills the rest with NULs. keep lowers the longest text
// stored. False when src was cut. src may be empty, and must not overlap dst.
bool copy_text_bounded(char *dst, std::size_t size, std::string_view src,
                       std::size_t keep) noexcept;

template <std::size_t N>
bool copy_text(char (&dst)[N], std::string_view src, std::size_t keep = N - 1) noexcept
{
    return copy_text_bounded(dst, N, src, keep);
}

// Clears dst, then formats into it. Returns the formatter's count (which may exceed what was
// written), 0 for an empty dst, negative on a formatter error.
int format_text(std::span<char> dst, const char *format, ...) noexcept
    __attribute__((format(printf, 2, 3)));

// The text before the first NUL of a fixed field, also when the field holds none.
template <std::size_t N> std::string_view text_of(const char (&field)[N]) noexcept
{
    const std::string_view whole{field, N};
    const std::size_t end = whole.find('\0');
    return end == std::string_view::npos ? whole : whole.substr(0, end);
}

// Decimal text to a number, as strtol reads it: leading white space, a sign, digits; anything else
// gives 0 and what follows the digits is ignored. parse_int32 keeps the low 32 bits of the (64-bit,
// clamped) value, which is what atoi does on a 64-bit system; parse_clamped32 clamps to the range
// of int32.
std::int32_t parse_int32(std::string_view text) noexcept;
std::int32_t parse_clamped32(std::string_view text) noexcept;
