#include "backend/observe/log.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <string>
#include <unistd.h>

namespace backend {

constexpr std::size_t TEXT_MAX = 1024;

static std::string stampedLine(char level)
{
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    tm parts{};
    gmtime_r(&now.tv_sec, &parts);
    std::array<char, 64> stamp{};
    const std::size_t size = strftime(stamp.data(), stamp.size(), "%FT%T", &parts);
    std::array<char, 32> rest{};
    (void)snprintf(rest.data(), rest.size(), ".%03ldZ %c ", now.tv_nsec / 1000000, level);
    return std::string(stamp.data(), size) + rest.data();
}

static void appendEscaped(std::string &line, char byte)
{
    if (byte >= ' ' && byte <= '~' && byte != '\\') {
        line += byte;
        return;
    }
    static constexpr char DIGITS[] = "0123456789abcdef";
    const auto value = static_cast<unsigned char>(byte);
    line += "\\x";
    line += DIGITS[value >> 4];
    line += DIGITS[value & 15];
}

__attribute__((format(printf, 2, 0))) static void writeLine(char level, const char *format,
                                                            va_list arguments)
{
    std::array<char, TEXT_MAX + 1> text{};
    const int count = vsnprintf(text.data(), text.size(), format, arguments);
    if (count < 0) return;
    std::string line = stampedLine(level);
    const std::size_t size = std::min(static_cast<std::size_t>(count), TEXT_MAX);
    for (std::size_t i = 0; i < size; i++)
        appendEscaped(line, text[i]);
    if (size < static_cast<std::size_t>(count)) line += "...";
    line += '\n';
    // Nothing is left to do about a log that cannot be written.
    if (write(STDERR_FILENO, line.data(), line.size()) < 0) return;
}

void logInfo(const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    writeLine('I', format, arguments);
    va_end(arguments);
}

void logWarning(const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    writeLine('W', format, arguments);
    va_end(arguments);
}

void logError(const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    writeLine('E', format, arguments);
    va_end(arguments);
}

bool rateAllows(RATE_LIMIT_T &limit, int per_second)
{
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    const std::int64_t second = std::chrono::duration_cast<std::chrono::seconds>(now).count();
    if (second != limit.second) limit = {second, 0};
    return limit.used++ < per_second;
}

} // namespace backend
