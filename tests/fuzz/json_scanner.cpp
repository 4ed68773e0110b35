// The JSON scanner, as object and as array, over a text without a NUL behind it.
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

int visit(const JSON_ITEM_T *member, void *user)
{
    auto *walk = static_cast<WALK_T *>(user);
    REQUIRE(member->key_len > 0 && liesIn(walk->text, member->key, member->key_len));
    REQUIRE(member->value_len > 0 && liesIn(walk->text, member->value, member->value_len));
    REQUIRE(isWellFormed({member->value, member->value_len}, member->type));
    walk->keys.emplace_back(member->key, member->key_len);
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

// As the service list is read.
void scanArray(std::string_view text)
{
    const char *const end = text.data() + text.size();
    const char *position = json_find_start(JSON_SCAN_ARRAY, text.data(), end);
    while (position != nullptr && position < end) {
        JSON_ITEM_T item{};
        const char *const next = json_next_item(JSON_SCAN_ARRAY, position + 1, end, &item);
        if (next == nullptr) return;
        REQUIRE(next > position && next <= end);
        REQUIRE(liesIn(text, item.value, item.value_len));
        position = next;
    }
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    scanObject(viewOf(data, size));
    scanArray(viewOf(data, size));
    return 0;
}
