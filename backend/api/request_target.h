// The target of a request: its path in segments and its query, decoded (RFC 3986).
// Threads  no shared state.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace backend {

struct TARGET_PARTS_T {
    std::vector<std::string> segments;        // of "/a/b": "a" and "b"
    std::map<std::string, std::string> query; // each name once
};

// Nothing for a bad escape, a control character, text that is no UTF-8, a name that comes twice,
// or a path that does not begin with a slash.
std::optional<TARGET_PARTS_T> parseTarget(std::string_view target);

// "%41" is "A", in a query "+" a space.
std::optional<std::string> percentDecode(std::string_view text, bool is_query);

} // namespace backend
