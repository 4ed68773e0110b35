// The JSON scanner, as object and as array, over a text with a length and over one to its NUL.
// Under test: utility/json_scanner.cpp
#include "utility/json_scanner.h"
#include "tests/fuzz/fuzz.h"

#include <string>
#include <vector>

namespace {

struct WALK_T {
    std::string_view text;
    std::vector<std::string> keys;
};

bool liesIn(std::string_view text, const char *part, std::size_t length)
{
    return part >= text.data() && length <= text.size() &&
           part + length <= text.data() + text.size();
}

bool isWellFormed(std::string_view value, std::int32_t type)
{
    switch (type) {
    case JSON_TYPE_STRING:
        return value.find('"') == std::string_view::npos;
    case JSON_TYPE_NUMBER:
        return value.find_first_not_of("0123456789") == std::string_view::npos;
    case JSON_TYPE_BOOL:
        return value == "true" || value == "TRUE" || value == "false" || value == "FALSE";
    case JSON_TYPE_OBJECT:
        return value.front() == '{' && value.back() == '}';
    case JSON_TYPE_ARRAY:
        return value.front() == '[' && value.back() == ']';
    default:
        return false;
    }
}

int visit(const char *key, std::size_t key_len, const char *value, std::size_t value_len,
          std::int32_t type, void *user)
{
    auto *walk = static_cast<WALK_T *>(user);
    REQUIRE(key_len > 0 && liesIn(walk->text, key, key_len));
    REQUIRE(value_len > 0 && liesIn(walk->text, value, value_len));
    REQUIRE(isWellFormed({value, value_len}, type));
    walk->keys.emplace_back(key, key_len);
    REQUIRE(walk->keys.back().find('"') == std::string::npos);
    return walk->keys.size() < 8 ? 0 : JSON_VISIT_STOP;
}

void scanObject(std::string_view text)
{
    WALK_T walk{text, {}};
    const int result = json_foreach_member(text.data(), text.size(), visit, &walk);
    REQUIRE((result == 0) == !walk.keys.empty());
    for (const std::string &key : walk.keys) {
        const JSON_VALUE_T value = json_lookup(text, key.c_str());
        REQUIRE(!value.text.empty() && liesIn(text, value.text.data(), value.text.size()));
    }
}

// As the service list is read: to the NUL. What it finds lies in the text.
void scanToTheNul(std::string_view text)
{
    const std::string whole{text.substr(0, text.find('\0'))};
    for (const int mode : {JSON_SCAN_ARRAY, JSON_SCAN_OBJECT}) {
        const char *position = json_find_start(mode, whole.c_str());
        while (position != nullptr && *position != '\0') {
            const char *key = whole.c_str();
            const char *value = nullptr;
            std::size_t key_len = 0;
            std::size_t value_len = 0;
            std::int32_t type = 0;
            const char *const next =
                json_next_item(mode, position + 1, &key, &key_len, &value, &value_len, &type);
            if (next == nullptr) break;
            REQUIRE(next > position && next <= whole.c_str() + whole.size());
            REQUIRE(liesIn(whole, value, value_len) && liesIn(whole, key, key_len));
            position = next;
        }
    }
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    scanObject(viewOf(data, size));
    scanToTheNul(viewOf(data, size));
    return 0;
}
