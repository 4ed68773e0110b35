// Text from outside, for a terminal: names come from files, devices and the cloud, and a control
// character in one of them must have no effect there.
#pragma once

#include "utility/utf8.h"

#include <algorithm>
#include <string>
#include <string_view>

namespace terminal_text {

struct RANGE_T {
    char32_t first, last;
};

// Controls, and what has no picture of its own but changes the order or the look of its neighbours:
// a name with one of these can pass for another.
inline constexpr RANGE_T CONTROLS[] = {
    {0x00, 0x1F},       {0x7F, 0x9F},       {0xAD, 0xAD}, // C0, C1, soft hyphen
    {0x034F, 0x034F},   {0x061C, 0x061C},                 // joiner, Arabic letter mark
    {0x115F, 0x1160},   {0x17B4, 0x17B5},                 // fillers, inherent vowels
    {0x180B, 0x180F},   {0x200B, 0x200F},                 // zero width, direction marks
    {0x2028, 0x202E},                                     // line and paragraph, bidirectional
    {0x2060, 0x206F},                                     // joiners, bidirectional isolates
    {0x3164, 0x3164},   {0xFE00, 0xFE0F},                 // filler, variation selectors
    {0xFEFF, 0xFEFF},   {0xFFA0, 0xFFA0},                 // byte order mark, filler
    {0xFFF0, 0xFFFB},   {0x1D173, 0x1D17A},               // annotations, musical controls
    {0xE0000, 0xE0FFF},                                   // tags
};

// character is one well-formed one.
constexpr bool is_control(std::string_view character) noexcept
{
    auto code = static_cast<char32_t>(static_cast<unsigned char>(character[0]));
    if (character.size() > 1) code &= 0x7FU >> character.size();
    for (const char next : character.substr(1))
        code = (code << 6) | (static_cast<unsigned char>(next) & 0x3FU);
    return std::ranges::any_of(CONTROLS, [code](const RANGE_T &range) {
        return range.first <= code && code <= range.last;
    });
}

} // namespace terminal_text

// The text with '?' for each control character, and for each byte that is not UTF-8.
inline std::string shown(std::string_view text)
{
    std::string result;
    result.reserve(text.size());
    while (!text.empty()) {
        const std::size_t length = utf8_character_length(text);
        const std::string_view character = text.substr(0, length == 0 ? 1 : length);
        if (length == 0 || terminal_text::is_control(character))
            result += '?';
        else
            result += character;
        text.remove_prefix(character.size());
    }
    return result;
}
