#include "platform/logger/logger.h"
#include "platform/logger/logger_internal.h"

#include "platform/logger/log_output.h"
#include "utility/handles.h"
#include "utility/utf8.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr int OUTPUT_STDERR = 1;
constexpr int FORMAT_TEXT_ALONE = 1;
constexpr int LEVEL_NOTHING = LOG_LEVEL_ERROR + 1;
constexpr char LEVEL_LETTERS[] = "DIWE";
constexpr std::size_t MODULE_SIZE = 64;
constexpr std::size_t FILE_MAX = 256;
constexpr std::size_t FUNCTION_MAX = 128;
constexpr std::size_t HEAD_SIZE = 512; // level, module, place
static_assert(HEAD_SIZE > MODULE_SIZE + FILE_MAX + FUNCTION_MAX + sizeof "L  :2147483647 : ");
// Formatting room: the kept part of a text, and some more to see whether it was longer. It is on
// the stack of every thread that logs, so it is no larger, though the C library takes 90 us to
// measure the rest of a text of 50 KiB.
constexpr std::size_t TEXT_SIZE = LOG_TEXT_MAX + 64;
constexpr std::size_t CONF_SIZE = 64;

// A line as it is put together, the room for its time in front.
struct LOG_LINE_T {
    char bytes[LINE_ROOM + HEAD_SIZE + escaped_size(LOG_TEXT_MAX) + sizeof LOG_CUT_MARK];
    std::size_t length;
};
static_assert(escaped_size(LOG_TEXT_MAX) >= TEXT_SIZE); // a text is formatted in its line
static_assert(sizeof LOG_LINE_T::bytes <= GATHER_SIZE);

constinit std::atomic<int> g_min_level{LEVEL_NOTHING};
// Written by log_init, before other threads exist.
constinit char g_module[MODULE_SIZE] = "";
constinit bool g_text_alone = false;

constinit thread_local bool t_gathers = false;

void put(LOG_LINE_T &line, std::string_view text)
{
    std::memcpy(line.bytes + line.length, text.data(), text.size());
    line.length += text.size();
}

// "L module file:number function: ". The C library's formatter would take half as long again as the
// whole text of a line does.
void put_head(LOG_LINE_T &line, int level, const char *file, const char *function, int number)
{
    const char letter = LEVEL_LETTERS[std::clamp<int>(level, LOG_LEVEL_DEBUG, LOG_LEVEL_ERROR)];
    const char start[] = {letter, ' '};
    char digits[12];
    const char *const end = std::to_chars(std::begin(digits), std::end(digits), number).ptr;
    put(line, {start, sizeof start});
    put(line, g_module);
    put(line, " ");
    put(line, {file, ::strnlen(file, FILE_MAX)});
    put(line, ":");
    put(line, {digits, static_cast<std::size_t>(end - digits)});
    put(line, " ");
    put(line, {function, ::strnlen(function, FUNCTION_MAX)});
    put(line, ": ");
}

constexpr bool is_plain(char c)
{
    return c >= ' ' && c <= '~';
}

// How many characters there are before the first that is not plain: eight at a time, as nearly all
// texts are plain to their end.
std::size_t plain_length(std::string_view text)
{
    constexpr std::uint64_t ONES = 0x0101010101010101;
    constexpr std::uint64_t TOP_BITS = ONES << 7;
    std::size_t length = 0;
    for (std::uint64_t word = 0; length + sizeof word <= text.size(); length += sizeof word) {
        std::memcpy(&word, text.data() + length, sizeof word);
        const std::uint64_t below_space = (word - ONES * ' ') & ~word;
        const std::uint64_t above_tilde = (word + ONES) | word;
        if (((below_space | above_tilde) & TOP_BITS) != 0) break;
    }
    while (length < text.size() && is_plain(text[length]))
        ++length;
    return length;
}

__attribute__((format(printf, 2, 0))) void put_text(LOG_LINE_T &line, const char *format,
                                                    std::va_list arguments)
{
    // Formatted where it will stand. From the first character that is not plain on it is copied
    // aside and escaped.
    char *const place = line.bytes + line.length;
    const int formatted = std::vsnprintf(place, TEXT_SIZE, format, arguments);
    std::string_view stored{format}; // without a text, its format still says what it was
    if (formatted >= 0) {
        stored = {place, std::min<std::size_t>(static_cast<std::size_t>(formatted), TEXT_SIZE - 1)};
    }
    bool cut = false;
    const std::string_view bounded = bound_log_text(stored, &cut);
    const std::size_t plain = formatted >= 0 ? plain_length(bounded) : 0;
    char rest[TEXT_SIZE];
    const std::size_t left = std::min(bounded.size() - plain, sizeof rest);
    std::memcpy(rest, bounded.data() + plain, left);
    line.length += plain + escape_log_text({rest, left}, place + plain);
    if (cut) put(line, LOG_CUT_MARK);
}

__attribute__((noinline, format(printf, 5, 0))) void print_line(int level, const char *file,
                                                                const char *function, int number,
                                                                const char *format,
                                                                std::va_list arguments)
{
    const int saved_errno = errno;
    LOG_LINE_T line;
    line.length = LINE_ROOM;
    if (!g_text_alone) put_head(line, level, file, function, number);
    errno = saved_errno; // the format may hold a %m
    put_text(line, format, arguments);
    put(line, "\n");
    const bool may_wait = t_gathers && level < LOG_LEVEL_WARN;
    output_line(line.bytes, line.length, {!g_text_alone, may_wait});
    errno = saved_errno;
}

void warn(int number, const char *format, ...) __attribute__((format(printf, 2, 3)));
void warn(int number, const char *format, ...)
{
    std::va_list arguments;
    va_start(arguments, format);
    print_line(LOG_LEVEL_WARN, __FILE__, "log_init", number, format, arguments);
    va_end(arguments);
}

// The level that the file asks for, or `level` when there is none or it is not understood.
int override_level(const char *conf_path, int level)
{
    // A FIFO in its place must not block.
    const UniqueFd file{::open(conf_path, O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK)};
    if (!file && (errno == ENOENT || errno == ENOTDIR)) return level;
    char content[CONF_SIZE];
    struct stat status {};
    const bool regular = file && ::fstat(file.get(), &status) == 0 && S_ISREG(status.st_mode);
    const ssize_t length = regular ? ::read(file.get(), content, sizeof content) : -1;
    // A file that fills the buffer is longer than anything that is understood.
    if (length < 0 || length == sizeof content ||
        parse_logger_conf({content, static_cast<std::size_t>(length)}, &level) != 0) {
        warn(__LINE__, "%s ignored: it is not a file that holds level=0 to level=3", conf_path);
    }
    return level;
}

bool is_control(std::string_view character)
{
    const auto byte = [character](std::size_t i) {
        return static_cast<unsigned char>(character[i]);
    };
    if (character.size() == 2) return byte(0) == 0xC2 && byte(1) < 0xA0;
    return character == "\xE2\x80\xA8" || character == "\xE2\x80\xA9";
}

char *put_escaped_byte(char *dst, char c)
{
    *dst++ = '\\';
    switch (c) {
    case '\r':
        *dst++ = 'r';
        return dst;
    case '\n':
        *dst++ = 'n';
        return dst;
    case '\t':
        *dst++ = 't';
        return dst;
    default:
        break;
    }
    const auto byte = static_cast<unsigned char>(c);
    *dst++ = 'x';
    *dst++ = "0123456789abcdef"[byte >> 4];
    *dst++ = "0123456789abcdef"[byte & 15];
    return dst;
}

} // namespace

std::size_t escape_log_text(std::string_view text, char *dst) noexcept
{
    const char *const start = dst;
    while (!text.empty()) {
        const std::size_t run = plain_length(text);
        std::memcpy(dst, text.data(), run);
        dst += run;
        text.remove_prefix(run);
        if (text.empty()) break;
        const std::size_t length = utf8_character_length(text);
        const std::string_view next = text.substr(0, std::max<std::size_t>(length, 1));
        if (length > 1 && !is_control(next)) {
            dst = std::copy(next.begin(), next.end(), dst);
        } else {
            for (const char c : next)
                dst = put_escaped_byte(dst, c);
        }
        text.remove_prefix(next.size());
    }
    return static_cast<std::size_t>(dst - start);
}

std::string_view bound_log_text(std::string_view stored, bool *cut) noexcept
{
    stored.remove_suffix(stored.ends_with("\r\n") ? 2 : stored.ends_with('\n') ? 1 : 0);
    *cut = stored.size() > LOG_TEXT_MAX;
    if (!*cut) return stored;
    // A character that begins before the limit and ends behind it is dropped whole.
    for (std::size_t start = LOG_TEXT_MAX - 3; start < LOG_TEXT_MAX; ++start) {
        if (start + utf8_character_length(stored.substr(start)) > LOG_TEXT_MAX) {
            return stored.substr(0, start);
        }
    }
    return stored.substr(0, LOG_TEXT_MAX);
}

int parse_logger_conf(std::string_view content, int *level) noexcept
{
    constexpr std::string_view KEY = "level=";
    constexpr std::string_view SPACE = " \t\r\n";
    content.remove_prefix(std::min(content.find_first_not_of(SPACE), content.size()));
    content = content.substr(0, content.find_last_not_of(SPACE) + 1);
    if (content.size() != KEY.size() + 1 || !content.starts_with(KEY)) return -1;
    const char digit = content.back();
    if (digit < '0' || digit > '3') return -1;
    *level = digit - '0';
    return 0;
}

void log_init_from(const char *module, int output, int min_level, int format,
                   const char *conf_path) noexcept
{
    (void)std::snprintf(g_module, sizeof g_module, "%s", module != nullptr ? module : "");
    g_text_alone = format == FORMAT_TEXT_ALONE;
    if (output != OUTPUT_STDERR)
        warn(__LINE__, "output %d is not known, standard error is used", output);
    const int level = std::clamp<int>(min_level, LOG_LEVEL_DEBUG, LOG_LEVEL_ERROR);
    g_min_level.store(override_level(conf_path, level), std::memory_order_relaxed);
}

void log_init(const char *module, int output, int min_level, int format)
{
    log_init_from(module, output, min_level, format, LOGGER_CONF_PATH);
}

void log_print(int level, const char * /*color*/, const char * /*tag*/, const char *file,
               const char *function, int line, const char *format, ...)
{
    if (level < g_min_level.load(std::memory_order_relaxed)) return;
    std::va_list arguments;
    va_start(arguments, format);
    print_line(level, file, function, line, format, arguments);
    va_end(arguments);
}

void log_gather(int on)
{
    t_gathers = on != 0;
}

int log_gathered(void)
{
    return static_cast<int>(gathered_bytes());
}

void log_flush(void)
{
    const int saved_errno = errno;
    flush_lines();
    errno = saved_errno;
}
