#include "utility/text.h"

#include <climits>
#include <gtest/gtest.h>
#include <string>
#include <tuple>

TEST(Text, CopyKeepsTheTerminatorAndZeroFills)
{
    using ROW_T = std::tuple<std::string_view, std::size_t, std::string_view>;
    const ROW_T rows[] = {{{}, 7, ""},
                          {"1234567", 7, "1234567"},
                          {"12345678", 7, "1234567"},
                          {"12345678", 99, "1234567"},
                          {"abcd", 3, "abc"},
                          {"a", 0, ""}};
    for (const auto &[src, keep, stored] : rows) {
        char field[8] = {'x', 'x', 'x', 'x', 'x', 'x', 'x', 'x'};
        EXPECT_EQ(src == stored, copy_text(field, src, keep)) << src;
        std::string expected{stored};
        expected.resize(sizeof field);
        EXPECT_EQ(expected, std::string(field, sizeof field)) << src;
    }
    EXPECT_FALSE(copy_text_bounded(nullptr, 0, "a", 5)); // no room, nothing written
}

TEST(Text, FormatClearsBoundsAndCounts)
{
    char field[4] = {'x', 'x', 'x', 'x'};
    EXPECT_EQ("xxxx", text_of(field)); // without a terminator it ends with the field
    EXPECT_EQ(1, format_text(field, "%d", 4));
    EXPECT_EQ(std::string("4\0\0\0", 4), std::string(field, sizeof field));
    EXPECT_EQ(5, format_text(field, "%s", "12345"));
    EXPECT_EQ("123", text_of(field));
    EXPECT_EQ(0, format_text({}, "%s", "abc"));
}

TEST(Text, NumbersReadAsTheSystemLibraryReadsThem)
{
    using ROW_T = std::tuple<std::string_view, std::int32_t, std::int32_t>;
    const ROW_T rows[] = {{"", 0, 0},
                          {"+-5", 0, 0},
                          {"+07", 7, 7},
                          {" \t\n\v\f\r-4x9", -4, -4},
                          {{"1234", 2}, 12, 12},
                          {"2147483648", INT_MIN, INT_MAX},
                          {"-2147483649", INT_MAX, INT_MIN},
                          {"9223372036854775807", -1, INT_MAX},
                          {"99999999999999999999", -1, INT_MAX},
                          {"-99999999999999999999", 0, INT_MIN}};
    for (const auto &[text, wrapped, clamped] : rows) {
        EXPECT_EQ(wrapped, parse_int32(text)) << text;
        EXPECT_EQ(clamped, parse_clamped32(text)) << text;
    }
}
