#include "utility/json_scanner.h"

#include <gtest/gtest.h>
#include <string_view>
#include <vector>

namespace {

constexpr std::int32_t NO_MEMBER = -9; // no member at all: the outputs stay as they were

struct LOOKUP_T {
    std::string_view text;
    const char *key;
    std::string_view value; // type 0 with no value: there are members, but none of that name
    std::int32_t type;
};

using namespace std::string_view_literals;

const LOOKUP_T LOOKUPS[] = {
    {R"({"code":200,"data":{}})", "data", "{}", JSON_TYPE_OBJECT},
    {R"(   { "a" : "x" })", "a", "x", JSON_TYPE_STRING},
    {R"({"a":[1,{"b":2}],"c":3})", "a", R"([1,{"b":2}])", JSON_TYPE_ARRAY},
    {R"({"a":TRUE,"b":false})", "b", "false", JSON_TYPE_BOOL},
    {R"({"a":FALSE})", "a", "FALSE", JSON_TYPE_BOOL},
    // A wanted key matches as a prefix, and the first member wins.
    {R"({"status_text":"x","status":"y"})", "status", "x", JSON_TYPE_STRING},
    {R"({"token":"","token_x":"v"})", "token", "v", JSON_TYPE_STRING}, // empty is skipped
    // Only the top level is searched.
    {R"({"o":{"x":1},"y":2})", "x", {}, 0},
    // What the scanner does not understand.
    {R"({"a":"x\"y"})", "a", R"(x\)", JSON_TYPE_STRING},
    {R"({"a":-7})", "a", "7", JSON_TYPE_NUMBER},
    {R"({"a":1.5,"b":2})", "b", "2", JSON_TYPE_NUMBER},
    {R"({"token":null,"payload_len":0})", "token", "payload_len", JSON_TYPE_STRING},
    {R"({"o":{"s":"}"},"b":1})", "o", R"({"s":"})", JSON_TYPE_OBJECT},
    {R"({"a":True,"b":1})", "b", "1", JSON_TYPE_NUMBER},
    // Texts that end early.
    {R"({"a":"b)", "a", {}, NO_MEMBER},
    {R"({"a":{"b":1)", "a", {}, NO_MEMBER},
    {R"({"a":12)", "a", {}, NO_MEMBER},
    {R"({"a":tru)", "a", {}, NO_MEMBER},
    {R"({"a":true)", "a", "true", JSON_TYPE_BOOL},
    {R"({"a)", "a", {}, NO_MEMBER},
    {R"({"a" 5})", "a", {}, NO_MEMBER},
    {R"({"a":})", "a", {}, NO_MEMBER},
    {"{\"a\":1,\0\"b\":2}"sv, "b", {}, 0},
    {"{\"a\":1\0}"sv, "a", {}, NO_MEMBER},
    {"{\"a\":\"b\0\"}"sv, "a", {}, NO_MEMBER},
    {"\0{\"a\":1}"sv, "a", {}, NO_MEMBER},
    {"", "a", {}, NO_MEMBER},
    // Only blanks may precede the bracket.
    {"\t{\"a\":1}", "a", {}, NO_MEMBER},
    {R"([{"a":1}])", "a", {}, NO_MEMBER},
};

} // namespace

TEST(JsonScanner, LooksUpTopLevelMembers)
{
    for (const LOOKUP_T &row : LOOKUPS) {
        // On the heap at its exact size, so that a read past the end is found.
        const std::vector<char> text{row.text.begin(), row.text.end()};
        std::size_t length = 77;
        std::int32_t type = NO_MEMBER;
        const char *value = json_get_value(text.data(), text.size(), row.key, &length, &type);
        EXPECT_EQ(row.value.data() != nullptr, value != nullptr) << row.text;
        EXPECT_EQ(row.type, type) << row.text;
        EXPECT_EQ(type == NO_MEMBER ? 77 : row.value.size(), length) << row.text;
        const JSON_VALUE_T found = json_lookup({text.data(), text.size()}, row.key);
        EXPECT_EQ(row.value, found.text) << row.text;
        EXPECT_EQ(value != nullptr ? row.type : JSON_TYPE_NONE, found.type) << row.text;
    }
    const char text[] = R"({"a":12})";
    EXPECT_EQ(text + 5, json_get_value(text, 8, "a", nullptr, nullptr));
    EXPECT_EQ(nullptr, json_get_value(text, 7, "a", nullptr, nullptr)); // the length cuts it
    EXPECT_EQ(nullptr, json_get_value(nullptr, 8, "a", nullptr, nullptr));
    EXPECT_EQ(nullptr, json_get_value(text, 8, nullptr, nullptr, nullptr));
    EXPECT_EQ(-1, json_foreach_member(text, 8, nullptr, nullptr));

    const char *key = nullptr;
    const char *value = nullptr;
    std::size_t key_len = 9;
    std::size_t value_len = 9;
    std::int32_t type = 9;
    const auto next = [&](int mode, const char *from) {
        return json_next_item(mode, from, &key, &key_len, &value, &value_len, &type);
    };
    EXPECT_EQ(text + 7, next(JSON_SCAN_OBJECT, json_find_start(JSON_SCAN_OBJECT, text)));
    EXPECT_TRUE(key == text + 2 && key_len == 1 && value == text + 5 && value_len == 2);
    EXPECT_EQ(JSON_TYPE_NUMBER, type);
    EXPECT_EQ(nullptr, next(JSON_SCAN_OBJECT, text + 7)); // no key: nothing is written
    EXPECT_EQ(JSON_TYPE_NUMBER, type);
    EXPECT_EQ(nullptr, next(JSON_SCAN_ARRAY, text + 7));
    EXPECT_TRUE(value == nullptr && value_len == 0 && type == JSON_TYPE_NONE);
    EXPECT_EQ(nullptr, json_find_start(JSON_SCAN_ARRAY, text));
    EXPECT_EQ(nullptr, json_find_start(JSON_SCAN_ARRAY, nullptr));
}
