#include "backend/admin/json_text.h"

#include <stdexcept>

namespace backend {

JSON_TEXT_T parseJsonText(std::string_view text)
{
    JSON_TEXT_T json;
    json.root = nlohmann::ordered_json::parse(text, nullptr, false);
    if (json.root.is_discarded()) throw std::runtime_error("is no JSON text");
    const std::size_t end = text.find_last_not_of(" \t\r\n");
    const std::size_t line = text.find('\n');
    if (line == std::string_view::npos || line > end) {
        json.indent = end < 3 ? 2 : -1; // an empty object shows no way
        return json;
    }
    // The first line that is indented at all.
    for (std::size_t at = line; at != std::string_view::npos; at = text.find('\n', at + 1)) {
        const std::size_t word = text.find_first_not_of(" \t", at + 1);
        if (word == std::string_view::npos || word == at + 1) continue;
        json.indent = static_cast<int>(word - at - 1);
        json.indent_with = text[at + 1];
        break;
    }
    return json;
}

std::string jsonText(const JSON_TEXT_T &json)
{
    return json.root.dump(json.indent, json.indent_with) + "\n";
}

} // namespace backend
