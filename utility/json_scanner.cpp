#include "utility/json_scanner.h"

namespace {

bool at_end(const char *position, const char *end)
{
    return position >= end || *position == '\0';
}

bool is_digit(char c)
{
    return c >= '0' && c <= '9';
}

// The first wanted character, or the end of the text.
const char *find_char(const char *position, const char *end, char wanted)
{
    while (!at_end(position, end) && *position != wanted)
        ++position;
    return position;
}

std::int32_t value_type(char c)
{
    switch (c) {
    case '"':
        return JSON_TYPE_STRING;
    case '{':
        return JSON_TYPE_OBJECT;
    case '[':
        return JSON_TYPE_ARRAY;
    case 't':
    case 'T':
    case 'f':
    case 'F':
        return JSON_TYPE_BOOL;
    default:
        return is_digit(c) ? JSON_TYPE_NUMBER : JSON_TYPE_NONE;
    }
}

// The measurers below set the item's length, which stays 0 for a value that the text cuts short,
// and return the position just past the value.

const char *measure_string(const char *end, JSON_ITEM_T *item)
{
    item->value += 1;
    const char *close = find_char(item->value, end, '"');
    if (at_end(close, end)) return close;
    item->value_len = static_cast<std::size_t>(close - item->value);
    return close + 1;
}

const char *measure_nested(const char *end, JSON_ITEM_T *item)
{
    const char open = *item->value;
    const char close = open == '{' ? '}' : ']';
    std::size_t depth = 0;
    const char *position = item->value;
    for (; !at_end(position, end); ++position) {
        if (*position == open) ++depth;
        if (*position == close && --depth == 0) {
            item->value_len = static_cast<std::size_t>(position - item->value) + 1;
            return position + 1;
        }
    }
    return position;
}

const char *measure_number(const char *end, JSON_ITEM_T *item)
{
    const char *position = item->value;
    while (!at_end(position, end) && is_digit(*position))
        ++position;
    if (!at_end(position, end)) {
        item->value_len = static_cast<std::size_t>(position - item->value);
    }
    return position;
}

const char *measure_bool(const char *end, JSON_ITEM_T *item)
{
    const std::string_view rest{item->value, static_cast<std::size_t>(end - item->value)};
    if (rest.starts_with("true") || rest.starts_with("TRUE")) item->value_len = 4;
    if (rest.starts_with("false") || rest.starts_with("FALSE")) item->value_len = 5;
    return item->value + item->value_len;
}

// Finds and measures the next value; everything that cannot begin one is skipped.
const char *scan_value(const char *position, const char *end, JSON_ITEM_T *item)
{
    item->value = nullptr;
    item->value_len = 0;
    item->type = JSON_TYPE_NONE;
    while (!at_end(position, end) && value_type(*position) == JSON_TYPE_NONE)
        ++position;
    if (at_end(position, end)) return nullptr;
    item->value = position;
    item->type = value_type(*position);
    switch (item->type) {
    case JSON_TYPE_STRING:
        return measure_string(end, item);
    case JSON_TYPE_NUMBER:
        return measure_number(end, item);
    case JSON_TYPE_BOOL:
        return measure_bool(end, item);
    default:
        return measure_nested(end, item);
    }
}

struct KEY_MATCH_T {
    std::string_view wanted;
    JSON_ITEM_T found;
};

constexpr int VISIT_CONTINUE = 1;

int match_key(const JSON_ITEM_T *member, void *user)
{
    auto *match = static_cast<KEY_MATCH_T *>(user);
    const std::string_view key{member->key, member->key_len};
    if (!key.starts_with(match->wanted)) return VISIT_CONTINUE;
    match->found = *member;
    return JSON_VISIT_STOP;
}

} // namespace

const char *json_find_start(int mode, const char *begin, const char *end) noexcept
{
    if (begin == nullptr) return nullptr;
    const char *position = begin;
    while (!at_end(position, end) && *position == ' ')
        ++position;
    if (at_end(position, end)) return nullptr;
    return *position == (mode == JSON_SCAN_OBJECT ? '{' : '[') ? position : nullptr;
}

const char *json_next_item(int mode, const char *position, const char *end,
                           JSON_ITEM_T *item) noexcept
{
    if (position == nullptr) return nullptr;
    if (mode == JSON_SCAN_OBJECT) {
        const char *open = find_char(position, end, '"');
        if (at_end(open, end)) return nullptr;
        const char *close = find_char(open + 1, end, '"');
        if (at_end(close, end)) return nullptr;
        item->key = open + 1;
        item->key_len = static_cast<std::size_t>(close - item->key);
        position = find_char(close + 1, end, ':');
    }
    return scan_value(position, end, item);
}

int json_foreach_member(const char *text, std::size_t len, JSON_VISITOR_FUNC_T visitor, void *user)
{
    if (text == nullptr || visitor == nullptr || len == 0) return -1;
    const char *end = text + len;
    int result = -1;
    const char *position = json_find_start(JSON_SCAN_OBJECT, text, end);
    while (position != nullptr && !at_end(position, end)) {
        JSON_ITEM_T member{};
        position = json_next_item(JSON_SCAN_OBJECT, position, end, &member);
        if (position == nullptr) break;
        if (member.key_len == 0 || member.value_len == 0) continue;
        result = 0;
        if (visitor(&member, user) == JSON_VISIT_STOP) break;
    }
    return result;
}

const char *json_get_value(const char *text, std::size_t len, const char *key,
                           std::size_t *value_len_out, std::int32_t *type_out)
{
    if (key == nullptr) return nullptr;
    KEY_MATCH_T match{key, {}};
    if (json_foreach_member(text, len, match_key, &match) != 0) return nullptr;
    if (value_len_out != nullptr) *value_len_out = match.found.value_len;
    if (type_out != nullptr) *type_out = match.found.type;
    return match.found.value;
}

JSON_VALUE_T json_lookup(std::string_view text, const char *key) noexcept
{
    std::size_t length = 0;
    std::int32_t type = JSON_TYPE_NONE;
    const char *value = json_get_value(text.data(), text.size(), key, &length, &type);
    if (value == nullptr) return {{}, JSON_TYPE_NONE};
    return {{value, length}, type};
}
