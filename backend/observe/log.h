// The back end's log: one line for each event on standard error, "2026-11-22T19:20:11.123Z I text",
// in UTC.
// Peers    a text may contain what they send: bytes outside printable ASCII and the backslash are
//          written as \xHH, so that no line can be forged or split from outside.
// Limits   a text is cut at 1024 bytes, with "..." at the end. Lines that strangers or devices can
//          cause go through logLimited.
// Threads  safe from every thread. Between startLog and stopLog a thread of the log's own writes,
//          and no call waits for standard error; before and after, a line is one write.
// Failure  1 MiB of lines wait at most. What finds no room is counted, and once there is room
//          again one line says how many were left out; so it is with those that no memory is left
//          for. A line that cannot be written is lost. Nothing throws, startLog excepted.
#pragma once

#include <chrono>
#include <cstdint>

namespace backend {

enum class LOG_LEVEL : char { INFO = 'I', WARNING = 'W', ERROR = 'E' };

void logInfo(const char *format, ...) __attribute__((format(printf, 1, 2)));
void logWarning(const char *format, ...) __attribute__((format(printf, 1, 2)));
void logError(const char *format, ...) __attribute__((format(printf, 1, 2)));

// One kind of line that others can cause: the first few in each second are written, the rest is
// counted. The count is written with the next line that is let through, within about a second
// when none comes, or at the latest when the limit is destroyed.
// A kind that can be caused without an accepted handshake has one limit for all peers:
//     static constinit LINE_LIMIT_T g_refused_lines{"refused handshakes"};
// A kind that an accepted device causes may have one in each channel.
struct LINE_LIMIT_T {
    // of_what: what such lines tell of, in the plural; a literal, borrowed for good.
    constexpr explicit LINE_LIMIT_T(const char *of_what, int at_most = 5) noexcept
        : kind(of_what), per_second(at_most)
    {
    }
    LINE_LIMIT_T(const LINE_LIMIT_T &) = delete;
    LINE_LIMIT_T &operator=(const LINE_LIMIT_T &) = delete;
    ~LINE_LIMIT_T()
    {
        flush();
    }
    void flush() noexcept; // without memory the count is lost

    const char *kind;
    int per_second;
    // The log's, behind its lock.
    std::int64_t second = 0;
    int used = 0;
    std::uint64_t left_out = 0;
    LINE_LIMIT_T *before = nullptr; // the limits with something left out are linked
    LINE_LIMIT_T *behind = nullptr;
};

void logLimited(LINE_LIMIT_T &limit, LOG_LEVEL level, const char *format, ...)
    __attribute__((format(printf, 3, 4)));

// Starts the thread. Throws std::system_error when there is none to be had.
void startLog();

// Writes what waits, and what is still to be told of lines left out. When standard error takes
// nothing for `bound`, the rest is lost. Lines after it are written by their callers again, unless
// standard error was stuck: then they are lost, so that the process can end.
void stopLog(std::chrono::milliseconds bound = std::chrono::seconds(1));

// Lets a handful of answers to a peer's misbehaviour through in each second, so that it cannot
// fill the channel. Not for lines: see LINE_LIMIT_T.
struct RATE_LIMIT_T {
    std::int64_t second = 0;
    int used = 0;
};

bool rateAllows(RATE_LIMIT_T &limit, int per_second = 5);

} // namespace backend
