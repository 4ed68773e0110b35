// The logger's inner functions, for its tests.
#pragma once

#include <cstddef>
#include <string_view>

constexpr std::size_t LOG_TEXT_MAX = 4096;
constexpr char LOG_CUT_MARK[] = "...";
// Room that escape_log_text needs for a text of `length` bytes: every byte may become \xHH.
constexpr std::size_t escaped_size(std::size_t length) noexcept
{
    return 4 * length;
}

// Writes text to dst, which holds at least escaped_size(text.size()) bytes, with control bytes
// (also DEL, U+0080 to U+009F, U+2028 and U+2029: some viewers take them for line ends or commands)
// and bytes that are not valid UTF-8 as \r, \n, \t or \xHH. Returns the bytes written; no NUL is
// added.
std::size_t escape_log_text(std::string_view text, char *dst) noexcept;

// The part of a text that is logged, without a line end at its end. Of a longer text `stored` may
// be the beginning, if it goes on for a whole character and a line end past LOG_TEXT_MAX. *cut says
// whether the mark belongs behind the result.
std::string_view bound_log_text(std::string_view stored, bool *cut) noexcept;

// "level=0" to "level=3", white space around it allowed: 0 and the level in *level. Anything else:
// -1, *level untouched.
[[nodiscard]] int parse_logger_conf(std::string_view content, int *level) noexcept;

// log_init with another place for the file.
void log_init_from(const char *module, int output, int min_level, int format,
                   const char *conf_path) noexcept;
