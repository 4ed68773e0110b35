#include "utility/text.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <limits>

bool copy_text_bounded(char *dst, std::size_t size, std::string_view src, std::size_t keep) noexcept
{
    if (size == 0) return src.empty();
    const std::size_t length = std::min({src.size(), keep, size - 1});
    if (length > 0) std::memcpy(dst, src.data(), length);
    std::memset(dst + length, 0, size - length);
    return length == src.size();
}

int format_text(std::span<char> dst, const char *format, ...) noexcept
{
    if (dst.empty()) return 0;
    std::memset(dst.data(), 0, dst.size());
    std::va_list args;
    va_start(args, format);
    const int count = std::vsnprintf(dst.data(), dst.size(), format, args);
    va_end(args);
    if (count < 0) dst[0] = '\0'; // what a failed formatter leaves behind is not defined
    return count;
}

namespace {

bool is_space(char c)
{
    return c == ' ' || (c >= '\t' && c <= '\r');
}

bool is_digit(char c)
{
    return c >= '0' && c <= '9';
}

// Digits to a magnitude that stops at limit instead of wrapping.
std::uint64_t parse_magnitude(std::string_view digits, std::uint64_t limit)
{
    std::uint64_t value = 0;
    for (const char c : digits) {
        if (!is_digit(c)) break;
        const auto digit = static_cast<std::uint64_t>(c - '0');
        if (value > (limit - digit) / 10) return limit;
        value = value * 10 + digit;
    }
    return value;
}

// strtoll in base 10, without its need for a terminating NUL and without the locale.
std::int64_t parse_int64(std::string_view text)
{
    while (!text.empty() && is_space(text.front()))
        text.remove_prefix(1);
    const bool negative = text.starts_with('-');
    if (negative || text.starts_with('+')) text.remove_prefix(1);
    constexpr std::uint64_t MAX = std::numeric_limits<std::int64_t>::max();
    if (!negative) return static_cast<std::int64_t>(parse_magnitude(text, MAX));
    // Negated as unsigned: the magnitude of the lowest value has no signed form.
    return static_cast<std::int64_t>(0 - parse_magnitude(text, MAX + 1));
}

} // namespace

std::int32_t parse_int32(std::string_view text) noexcept
{
    return static_cast<std::int32_t>(parse_int64(text));
}

std::int32_t parse_clamped32(std::string_view text) noexcept
{
    using Limits = std::numeric_limits<std::int32_t>;
    return static_cast<std::int32_t>(
        std::clamp<std::int64_t>(parse_int64(text), Limits::min(), Limits::max()));
}
