// UTF-8: where a well-formed character ends. Logs, the bus and JSON all refuse or escape what is
// not UTF-8.
#pragma once

#include <cstddef>
#include <string_view>

// Bytes of the character that text starts with, 1 to 4; 0 when text is empty or starts with no
// well-formed character (truncated, overlong, a surrogate, above U+10FFFF).
constexpr std::size_t utf8_character_length(std::string_view text) noexcept
{
    if (text.empty()) return 0;
    const auto lead = static_cast<unsigned char>(text[0]);
    if (lead < 0x80) return 1;
    if (lead < 0xC2 || lead > 0xF4) return 0;
    const std::size_t length = lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
    if (text.size() < length) return 0;
    // Only the second byte distinguishes overlong forms, surrogates and too high code points.
    const auto second = static_cast<unsigned char>(text[1]);
    const int low = lead == 0xE0 ? 0xA0 : lead == 0xF0 ? 0x90 : 0x80;
    const int high = lead == 0xED ? 0x9F : lead == 0xF4 ? 0x8F : 0xBF;
    if (second < low || second > high) return 0;
    for (std::size_t i = 2; i < length; ++i) {
        if ((static_cast<unsigned char>(text[i]) & 0xC0) != 0x80) return 0;
    }
    return length;
}

constexpr bool is_utf8(std::string_view text) noexcept
{
    while (!text.empty()) {
        const std::size_t length = utf8_character_length(text);
        if (length == 0) return false;
        text.remove_prefix(length);
    }
    return true;
}

// A C text that the bus takes: libdbus ends the process on one that is null or not UTF-8.
constexpr bool is_bus_text(const char *text) noexcept
{
    return text != nullptr && is_utf8(text);
}
