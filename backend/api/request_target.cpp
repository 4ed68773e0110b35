#include "backend/api/request_target.h"

#include <algorithm>
#include <charconv>

namespace backend {

static bool hasControl(std::string_view text)
{
    return std::any_of(text.begin(), text.end(), [](char c) {
        const auto byte = static_cast<unsigned char>(c);
        return byte < ' ' || byte == 0x7f;
    });
}

// Length of the character that begins here, 0 when it is none (no overlong form, no surrogate).
static std::size_t characterLength(std::string_view text)
{
    const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned char first = byte(0);
    if (first < 0x80) return 1;
    const std::size_t length = first >= 0xf0 ? 4 : first >= 0xe0 ? 3 : 2;
    if (first < 0xc2 || first > 0xf4 || text.size() < length) return 0;
    for (std::size_t i = 1; i < length; i++)
        if ((byte(i) & 0xc0) != 0x80) return 0;
    const bool is_bad = (first == 0xe0 && byte(1) < 0xa0) || (first == 0xed && byte(1) > 0x9f) ||
                        (first == 0xf0 && byte(1) < 0x90) || (first == 0xf4 && byte(1) > 0x8f);
    return is_bad ? 0 : length;
}

static bool isText(std::string_view text)
{
    while (!text.empty()) {
        const std::size_t length = characterLength(text);
        if (length == 0) return false;
        text.remove_prefix(length);
    }
    return true;
}

std::optional<std::string> percentDecode(std::string_view text, bool is_query)
{
    std::string decoded;
    for (std::size_t i = 0; i < text.size(); i++) {
        char byte = text[i];
        if (byte == '%') {
            if (text.size() - i < 3) return std::nullopt;
            const char *const end = text.data() + i + 3;
            unsigned char value = 0;
            const auto [stop, error] = std::from_chars(text.data() + i + 1, end, value, 16);
            if (error != std::errc() || stop != end) return std::nullopt;
            byte = static_cast<char>(value);
            i += 2;
        } else if (byte == '+' && is_query) {
            byte = ' ';
        }
        decoded += byte;
    }
    if (hasControl(decoded) || !isText(decoded)) return std::nullopt;
    return decoded;
}

static bool parseQuery(std::string_view query, TARGET_PARTS_T &parts)
{
    while (!query.empty()) {
        const std::string_view pair = query.substr(0, query.find('&'));
        query.remove_prefix(std::min(query.size(), pair.size() + 1));
        if (pair.empty()) continue;
        const std::size_t equals = std::min(pair.find('='), pair.size());
        const auto name = percentDecode(pair.substr(0, equals), true);
        const auto value = percentDecode(equals < pair.size() ? pair.substr(equals + 1) : "", true);
        if (!name || !value || !parts.query.emplace(*name, *value).second) return false;
    }
    return true;
}

std::optional<TARGET_PARTS_T> parseTarget(std::string_view target)
{
    if (!target.starts_with('/')) return std::nullopt;
    TARGET_PARTS_T parts;
    const std::size_t mark = std::min(target.find('?'), target.size());
    std::string_view path = target.substr(1, mark - 1);
    for (;;) {
        const std::size_t slash = path.find('/');
        const auto segment = percentDecode(path.substr(0, slash), false);
        if (!segment) return std::nullopt;
        parts.segments.push_back(*segment);
        if (slash == std::string_view::npos) break;
        path.remove_prefix(slash + 1);
    }
    if (mark < target.size() && !parseQuery(target.substr(mark + 1), parts)) return std::nullopt;
    return parts;
}

} // namespace backend
