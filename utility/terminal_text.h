// Text from outside, for a terminal: names come from files, devices and the cloud, and a control
// character in one of them must have no effect there.
#pragma once

#include <string>

// The text with '?' for each control character, U+0080 to U+009F (0xc2 and a byte) included.
inline std::string shown(std::string text)
{
    unsigned char before = 0;
    for (char &c : text) {
        const auto byte = static_cast<unsigned char>(c);
        const bool is_c1 = before == 0xc2 && byte >= 0x80 && byte < 0xa0;
        if (byte < 0x20 || byte == 0x7f || is_c1) c = '?';
        before = byte;
    }
    return text;
}
