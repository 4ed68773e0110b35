#include "utility/json_scanner.h"

namespace {

// A member or element as it is found; key and key_len in object mode only.
struct JSON_ITEM_T {
    const char *key;
    std::size_t key_len;
    const char *value; // null when none was found
    std::size_t value_len;
    std::int32_t type; // JSON_TYPE
};

// The end of a text may be null: it runs to its NUL then.
bool at_end(const char *position, const char *end)
{
    return position == end || *position == '\0';
}

bool starts_with(const char *position, const char *end, std::string_view word)
{
    for (const char wanted : word) {
        if (at_end(position, end) || *position++ != wanted) return false;
    }
    return true;
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
    const auto is = [&](std::string_view word) { return starts_with(item->value, end, word); };
    if (is("true") || is("TRUE")) item->value_len = 4;
    if (is("false") || is("FALSE")) item->value_len = 5;
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

int match_key(const char *key, std::size_t key_len, const char *value, std::size_t value_len,
              std::int32_t type, void *user)
{
    auto *match = static_cast<KEY_MATCH_T *>(user);
    if (!std::string_view{key, key_len}.starts_with(match->wanted)) return VISIT_CONTINUE;
    match->found = {key, key_len, value, value_len, type};
    return JSON_VISIT_STOP;
}

struct KEY_MATCHES_T {
    std::span<const std::string_view> wanted;
    JSON_VALUE_T *found;
};

int match_keys(const char *key, std::size_t key_len, const char *value, std::size_t value_len,
               std::int32_t type, void *user)
{
    const auto *const matches = static_cast<KEY_MATCHES_T *>(user);
    const std::string_view name{key, key_len};
    for (std::size_t i = 0; i < matches->wanted.size(); ++i) {
        JSON_VALUE_T &found = matches->found[i];
        if (found.text.data() == nullptr && name.starts_with(matches->wanted[i]))
            found = {{value, value_len}, type};
    }
    return VISIT_CONTINUE;
}

const char *find_start(int mode, const char *text, const char *end)
{
    if (text == nullptr) return nullptr;
    const char *position = text;
    while (!at_end(position, end) && *position == ' ')
        ++position;
    if (at_end(position, end)) return nullptr;
    return *position == (mode == JSON_SCAN_OBJECT ? '{' : '[') ? position : nullptr;
}

// False, and item as it was, when object mode finds no key.
bool find_key(const char **position, const char *end, JSON_ITEM_T *item)
{
    const char *const open = find_char(*position, end, '"');
    if (at_end(open, end)) return false;
    const char *const close = find_char(open + 1, end, '"');
    if (at_end(close, end)) return false;
    item->key = open + 1;
    item->key_len = static_cast<std::size_t>(close - item->key);
    *position = find_char(close + 1, end, ':');
    return true;
}

} // namespace

const char *json_find_start(int mode, const char *text) noexcept
{
    return find_start(mode, text, nullptr);
}

const char *json_next_item(int mode, const char *position, const char **key, std::size_t *key_len,
                           const char **value, std::size_t *value_len, std::int32_t *type) noexcept
{
    if (position == nullptr) return nullptr;
    JSON_ITEM_T item{};
    if (mode == JSON_SCAN_OBJECT) {
        if (!find_key(&position, nullptr, &item)) return nullptr;
        *key = item.key;
        *key_len = item.key_len;
    }
    position = scan_value(position, nullptr, &item);
    *value = item.value;
    *value_len = item.value_len;
    *type = item.type;
    return position;
}

int json_foreach_member(const char *text, std::size_t len, JSON_VISITOR_FUNC_T visitor, void *user)
{
    if (text == nullptr || visitor == nullptr || len == 0) return -1;
    const char *const end = text + len;
    int result = -1;
    const char *position = find_start(JSON_SCAN_OBJECT, text, end);
    while (position != nullptr && !at_end(position, end)) {
        JSON_ITEM_T member{};
        if (!find_key(&position, end, &member)) break;
        position = scan_value(position, end, &member);
        if (position == nullptr) break;
        if (member.key_len == 0 || member.value_len == 0) continue;
        result = 0;
        if (visitor(member.key, member.key_len, member.value, member.value_len, member.type,
                    user) == JSON_VISIT_STOP)
            break;
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

void json_lookup_each(std::string_view text, std::span<const std::string_view> keys,
                      JSON_VALUE_T *values) noexcept
{
    for (std::size_t i = 0; i < keys.size(); ++i)
        values[i] = {{}, JSON_TYPE_NONE};
    KEY_MATCHES_T matches{keys, values};
    (void)json_foreach_member(text.data(), text.size(), match_keys, &matches);
}
