#include "backend/observe/log.h"

#include "backend/observe/line_writer.h"
#include "backend/observe/metrics.h"

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <mutex>
#include <new>
#include <string>
#include <unistd.h>
#include <utility>

namespace backend {

constexpr std::size_t TEXT_MAX = 1024;
constexpr std::size_t QUEUE_MAX = std::size_t{1024} * 1024;

static constinit std::mutex g_lock; // guards everything below, and the limits' own fields
// Kept for good: the writer's thread may still be stuck in a write when the process ends.
static constinit LineWriterPtr *g_writer = nullptr;
static constinit bool g_is_lost = false;            // standard error was stuck at the end
static constinit LINE_LIMIT_T *g_limited = nullptr; // those with something left out
static constinit std::uint64_t g_without_room = 0;  // lines that the queue did not take

static std::string stampedLine(LOG_LEVEL level)
{
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    tm parts{};
    gmtime_r(&now.tv_sec, &parts);
    std::array<char, 64> stamp{};
    const std::size_t size = strftime(stamp.data(), stamp.size(), "%FT%T", &parts);
    std::array<char, 32> rest{};
    (void)snprintf(rest.data(), rest.size(), ".%03ldZ %c ", now.tv_nsec / 1000000,
                   static_cast<char>(level));
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

__attribute__((format(printf, 2, 0))) static std::string
makeLine(LOG_LEVEL level, const char *format, va_list arguments)
{
    std::array<char, TEXT_MAX + 1> text{};
    const int count = vsnprintf(text.data(), text.size(), format, arguments);
    if (count < 0) return {};
    std::string line = stampedLine(level);
    const std::size_t size = std::min(static_cast<std::size_t>(count), TEXT_MAX);
    for (std::size_t i = 0; i < size; i++)
        appendEscaped(line, text[i]);
    if (size < static_cast<std::size_t>(count)) line += "...";
    line += '\n';
    return line;
}

static bool passOn(const std::string &line)
{
    if (g_is_lost) return false;
    if (g_writer != nullptr) return offerLine(**g_writer, line);
    // Nothing is left to do about a log that cannot be written.
    return write(STDERR_FILENO, line.data(), line.size()) >= 0;
}

static std::string countLine(std::uint64_t count, const char *of_what)
{
    return stampedLine(LOG_LEVEL::WARNING) + std::to_string(count) +
           (count == 1 ? " line" : " lines") + of_what + " left out\n";
}

// Under the lock.
static bool tellWithoutRoom()
{
    if (g_without_room == 0) return true;
    if (!passOn(countLine(g_without_room, " that found no room or memory:"))) return false;
    g_without_room = 0;
    return true;
}

// Under the lock.
static void countLost()
{
    g_without_room++;
    addToMetric(METRIC::LOG_LINES_LEFT_OUT);
}

// Under the lock.
static void putLine(const std::string &line)
{
    if (!tellWithoutRoom() || !passOn(line)) countLost();
}

__attribute__((format(printf, 2, 0))) static void writeLine(LOG_LEVEL level, const char *format,
                                                            va_list arguments)
{
    try {
        const std::string line = makeLine(level, format, arguments);
        const std::lock_guard guard(g_lock);
        putLine(line);
    } catch (const std::bad_alloc &) {
        const std::lock_guard guard(g_lock);
        countLost();
    }
}

void logInfo(const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    writeLine(LOG_LEVEL::INFO, format, arguments);
    va_end(arguments);
}

void logWarning(const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    writeLine(LOG_LEVEL::WARNING, format, arguments);
    va_end(arguments);
}

void logError(const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    writeLine(LOG_LEVEL::ERROR, format, arguments);
    va_end(arguments);
}

// ---- limits

static std::int64_t secondNow()
{
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::seconds>(now).count();
}

// Under the lock, as the next three.
static void countLeftOut(LINE_LIMIT_T &limit)
{
    if (limit.left_out++ > 0) return;
    limit.before = nullptr;
    limit.behind = g_limited;
    if (g_limited != nullptr) g_limited->before = &limit;
    g_limited = &limit;
}

static std::uint64_t takeLeftOut(LINE_LIMIT_T &limit)
{
    if (limit.left_out == 0) return 0;
    (limit.before != nullptr ? limit.before->behind : g_limited) = limit.behind;
    if (limit.behind != nullptr) limit.behind->before = limit.before;
    limit.before = limit.behind = nullptr;
    return std::exchange(limit.left_out, 0);
}

static void tellLeftOut(LINE_LIMIT_T &limit)
{
    const std::uint64_t count = takeLeftOut(limit);
    try {
        if (count > 0) putLine(countLine(count, (std::string(" about ") + limit.kind).c_str()));
    } catch (const std::bad_alloc &) {
        g_without_room += count;
    }
}

static bool limitAllows(LINE_LIMIT_T &limit)
{
    const std::int64_t second = secondNow();
    if (second != limit.second) {
        limit.second = second;
        limit.used = 0;
    }
    return limit.used++ < limit.per_second;
}

void logLimited(LINE_LIMIT_T &limit, LOG_LEVEL level, const char *format, ...)
{
    const std::lock_guard guard(g_lock);
    if (!limitAllows(limit)) {
        addToMetric(METRIC::LOG_LINES_LEFT_OUT);
        return countLeftOut(limit);
    }
    tellLeftOut(limit);
    va_list arguments;
    va_start(arguments, format);
    try {
        putLine(makeLine(level, format, arguments));
    } catch (const std::bad_alloc &) {
        countLost();
    }
    va_end(arguments);
}

// Whoever can make limits end (a device that comes and goes) must not fill the log with that.
void LINE_LIMIT_T::flush() noexcept
try {
    static LINE_LIMIT_T ended("limits that have ended");
    const std::lock_guard guard(g_lock); // the log's thread may be telling of it just now
    if (left_out == 0) return;
    if (this != &ended && !limitAllows(ended)) {
        if (takeLeftOut(*this) > 0) countLeftOut(ended);
        return;
    }
    tellLeftOut(*this);
} catch (const std::exception &) {
}

// By the writer's thread: what was left out is told once its second is over.
static void tellQuiet()
{
    const std::lock_guard guard(g_lock);
    const std::int64_t second = secondNow();
    for (LINE_LIMIT_T *limit = g_limited; limit != nullptr;) {
        LINE_LIMIT_T *const behind = limit->behind;
        if (limit->second != second) tellLeftOut(*limit);
        limit = behind;
    }
    try {
        (void)tellWithoutRoom();
    } catch (const std::bad_alloc &) { // the next time
    }
}

void startLog()
{
    const std::lock_guard guard(g_lock);
    if (g_writer != nullptr) return;
    g_writer = new LineWriterPtr(startLineWriter(STDERR_FILENO, QUEUE_MAX, tellQuiet));
}

void stopLog(std::chrono::milliseconds bound)
{
    LineWriterPtr writer;
    {
        const std::lock_guard guard(g_lock);
        if (g_writer == nullptr) return;
        while (g_limited != nullptr)
            tellLeftOut(*g_limited);
        (void)tellWithoutRoom();
        writer = *g_writer;
    }
    // Without the lock: the thread takes it in tellQuiet.
    const bool is_written = stopLineWriter(*writer, bound);
    const std::lock_guard guard(g_lock);
    g_is_lost = !is_written;
    if (is_written) delete std::exchange(g_writer, nullptr);
}

bool rateAllows(RATE_LIMIT_T &limit, int per_second)
{
    const std::int64_t second = secondNow();
    if (second != limit.second) limit = {second, 0};
    return limit.used++ < per_second;
}

} // namespace backend
