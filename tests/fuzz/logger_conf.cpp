// The file that sets the logger's level.
// Under test: platform/logger/logger.cpp(parse_logger_conf)
#include "platform/logger/logger_internal.h"
#include "tests/fuzz/fuzz.h"

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    constexpr int UNTOUCHED = 9;
    int level = UNTOUCHED;
    const std::string_view content = viewOf(data, size);
    if (parse_logger_conf(content, &level) != 0) {
        REQUIRE(level == UNTOUCHED);
        return 0;
    }
    const char expected[] = {'l', 'e', 'v', 'e', 'l', '=', static_cast<char>('0' + level)};
    REQUIRE(level >= 0 && level <= 3);
    REQUIRE(content.find({expected, sizeof expected}) != std::string_view::npos);
    return 0;
}
