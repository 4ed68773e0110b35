// The text of a JSON file that people edit, too: members keep their order, and the text its
// indentation.
#pragma once

#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

namespace backend {

// The library does not say that its move throws nothing.
// NOLINTNEXTLINE(bugprone-exception-escape)
struct JSON_TEXT_T {
    nlohmann::ordered_json root;
    int indent = 2; // -1: all on one line
    char indent_with = ' ';
};

// Throws std::runtime_error.
JSON_TEXT_T parseJsonText(std::string_view text);
std::string jsonText(const JSON_TEXT_T &json);

} // namespace backend
