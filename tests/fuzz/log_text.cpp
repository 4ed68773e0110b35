// The text of a log line, which may be what a peer sent: no line is forged by it.
// Under test: platform/logger/logger.cpp(log_text|is_control|is_plain|put_escaped_byte)
#include "platform/logger/logger_internal.h"
#include "tests/fuzz/fuzz.h"
#include "utility/utf8.h"

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    bool cut = false;
    const std::string_view stored = viewOf(data, size);
    const std::string_view bounded = bound_log_text(stored, &cut);
    REQUIRE(bounded.size() <= LOG_TEXT_MAX && bounded.size() <= size);
    REQUIRE(cut || size - bounded.size() <= 2); // but for a line end, all of it
    for (std::size_t start = bounded.size() - std::min<std::size_t>(bounded.size(), 3);
         start < bounded.size(); ++start) // no character is cut in two
        REQUIRE(start + utf8_character_length(stored.substr(start)) <= bounded.size());
    const auto line = std::make_unique<char[]>(escaped_size(bounded.size()));
    std::string_view escaped{line.get(), escape_log_text(bounded, line.get())};
    REQUIRE(escaped.size() >= bounded.size() && escaped.size() <= escaped_size(bounded.size()));
    while (!escaped.empty()) {
        const std::size_t length = utf8_character_length(escaped);
        REQUIRE(length > 0 && escaped[0] != '\x7f');
        REQUIRE(static_cast<unsigned char>(escaped[0]) >= ' ');
        REQUIRE(!(escaped[0] == '\xC2' && static_cast<unsigned char>(escaped[1]) < 0xA0));
        REQUIRE(!escaped.starts_with("\u2028") && !escaped.starts_with("\u2029"));
        escaped.remove_prefix(length);
    }
    return 0;
}
