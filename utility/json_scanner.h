// JSON scanner: picks single values out of a JSON object or array text in place, without allocating
// and without writing to the text. It understands only as much JSON as the daemon's messages need:
// no escape sequences; no signs, fractions or exponents of numbers; no null; brackets inside
// strings count as brackets.
//
// Bounds    a text without a length runs to its NUL; one with a length ends there, or at its first
//           NUL before that.
// Pointers  returned values point into the text and are not terminated.
// Threads   no state.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

enum JSON_TYPE : std::int32_t {
    JSON_TYPE_NONE = -1,  // nothing found
    JSON_TYPE_STRING = 0, // the characters between the quotes
    JSON_TYPE_OBJECT = 1, // from "{" to its "}", both included
    JSON_TYPE_ARRAY = 2,  // from "[" to its "]", both included
    JSON_TYPE_NUMBER = 3, // a run of digits
    JSON_TYPE_BOOL = 4,   // true, TRUE, false or FALSE
};

enum JSON_SCAN_MODE : std::int32_t { JSON_SCAN_ARRAY = 0, JSON_SCAN_OBJECT = 1 };

// Skips blanks (only blanks) and returns the opening bracket of the mode, or null when there is
// something else.
const char *json_find_start(int mode, const char *text) noexcept;

// The next member (object mode) or element (array mode) at or after position. Returns the position
// just past it, or null when there is none. The key's outputs are written in object mode only; none
// is when object mode finds no key. Without a value they are null, 0 and JSON_TYPE_NONE.
const char *json_next_item(int mode, const char *position, const char **key, std::size_t *key_len,
                           const char **value, std::size_t *value_len, std::int32_t *type) noexcept;

constexpr int JSON_VISIT_STOP = 2; // a visitor's result that ends the walk
using JSON_VISITOR_FUNC_T = int (*)(const char *key, std::size_t key_len, const char *value,
                                    std::size_t value_len, std::int32_t type, void *user);

// Calls the visitor for each top-level member that has a non-empty key and value.
// 0 when there was at least one, -1 otherwise.
int json_foreach_member(const char *text, std::size_t len, JSON_VISITOR_FUNC_T visitor, void *user);

// The value of the first top-level member whose key begins with `key`; null when there is none. The
// outputs may be null; they are written (0 and 0 when no member matched) unless the text holds no
// member at all.
const char *json_get_value(const char *text, std::size_t len, const char *key,
                           std::size_t *value_len_out, std::int32_t *type_out);

// The same in one record: the value's text, empty and JSON_TYPE_NONE when no member matched.
struct JSON_VALUE_T {
    std::string_view text;
    std::int32_t type;
};
JSON_VALUE_T json_lookup(std::string_view text, const char *key) noexcept;
// json_lookup of each key, in one walk. values has room for as many records as there are keys.
void json_lookup_each(std::string_view text, std::span<const std::string_view> keys,
                      JSON_VALUE_T *values) noexcept;
