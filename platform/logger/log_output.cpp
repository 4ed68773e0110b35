#include "platform/logger/log_output.h"

#include <atomic>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <mutex>
#include <poll.h>
#include <string_view>
#include <unistd.h>

namespace {

constexpr char LATEST_SECOND[] = "9999-12-31T23:59:59";
constexpr std::size_t SECOND_LENGTH = sizeof LATEST_SECOND - 1;
constexpr int ROOM_WAIT_MS = 50;

constinit std::mutex g_mutex; // keeps lines apart and guards what follows
constinit std::time_t g_second = -1;
constinit char g_second_text[SECOND_LENGTH + 1] = "";
constinit bool g_line_torn = false;              // only a part of the last line was taken
constinit char g_gathered[1 + GATHER_SIZE] = {}; // behind room for a line end
constinit std::atomic<std::size_t> g_gathered_length{0};
constinit timespec g_gathering_since{};

timespec put_time(char *dst)
{
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    if (now.tv_sec != g_second) {
        std::tm utc{};
        ::gmtime_r(&now.tv_sec, &utc);
        if (std::strftime(g_second_text, sizeof g_second_text, "%Y-%m-%dT%H:%M:%S", &utc) !=
            SECOND_LENGTH) {
            std::memcpy(g_second_text, LATEST_SECOND, sizeof LATEST_SECOND);
        }
        g_second = now.tv_sec;
    }
    const auto ms = static_cast<int>(now.tv_nsec / 1'000'000);
    const auto digit = [](int value) { return static_cast<char>('0' + value % 10); };
    const char rest[] = {'.', digit(ms / 100), digit(ms / 10), digit(ms), 'Z', ' '};
    std::memcpy(dst, g_second_text, SECOND_LENGTH);
    std::memcpy(dst + SECOND_LENGTH, rest, sizeof rest);
    return now;
}

// Standard error may have been made non-blocking by a process that shares it: wait a moment for
// room, never for long.
bool wait_for_room()
{
    pollfd room{STDERR_FILENO, POLLOUT, 0};
    return ::poll(&room, 1, ROOM_WAIT_MS) == 1 && (room.revents & POLLOUT) != 0;
}

// Whole lines; the byte in front of them is a line end.
void write_lines(std::string_view lines)
{
    if (g_line_torn) lines = {lines.data() - 1, lines.size() + 1};
    const char *const start = lines.data();
    while (!lines.empty()) {
        const ssize_t written = ::write(STDERR_FILENO, lines.data(), lines.size());
        if (written > 0) {
            lines.remove_prefix(static_cast<std::size_t>(written));
        } else if (written == 0 || (errno != EINTR && (errno != EAGAIN || !wait_for_room()))) {
            break;
        }
    }
    const char *const end = lines.data();
    if (end != start) g_line_torn = end[-1] != '\n';
}

void write_gathered()
{
    const std::size_t length = g_gathered_length.load(std::memory_order_relaxed);
    if (length > 0) write_lines({g_gathered + 1, length});
    g_gathered_length.store(0, std::memory_order_relaxed);
}

void gather(std::string_view line, const timespec &now)
{
    if (g_gathered_length.load(std::memory_order_relaxed) + line.size() > GATHER_SIZE)
        write_gathered();
    const std::size_t length = g_gathered_length.load(std::memory_order_relaxed);
    if (length == 0) {
        g_gathering_since = now;
        g_gathered[0] = '\n';
    }
    std::memcpy(g_gathered + 1 + length, line.data(), line.size());
    g_gathered_length.store(length + line.size(), std::memory_order_relaxed);
}

bool has_waited_enough(const timespec &now)
{
    const std::time_t waited_ms = (now.tv_sec - g_gathering_since.tv_sec) * 1000 +
                                  (now.tv_nsec - g_gathering_since.tv_nsec) / 1'000'000;
    return waited_ms < 0 || waited_ms >= GATHER_MS; // below 0: the clock was set back
}

} // namespace

void output_line(char *line, std::size_t length, const OUTPUT_MODE_T &mode) noexcept
{
    const std::lock_guard guard{g_mutex};
    const timespec now = put_time(line + 1);
    const std::size_t start = mode.timed ? 1 : LINE_ROOM;
    line[start - 1] = '\n';
    const std::string_view text{line + start, length - start};
    // With nothing in front of it a line that must not wait need not be copied.
    if (!mode.may_wait && gathered_bytes() == 0) return write_lines(text);
    gather(text, now);
    if (!mode.may_wait || has_waited_enough(now)) write_gathered();
}

std::size_t gathered_bytes() noexcept
{
    return g_gathered_length.load(std::memory_order_relaxed);
}

void flush_lines() noexcept
{
    const std::lock_guard guard{g_mutex};
    write_gathered();
}
