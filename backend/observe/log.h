// The back end's log: one line for each event on standard error, "2026-11-22T19:20:11.123Z I text",
// in UTC.
// Peers    a text may contain what they send: bytes outside printable ASCII and the backslash are
//          written as \xHH, so that no line can be forged or split from outside.
// Limits   a text is cut at 1024 bytes, with "..." at the end.
// Threads  safe from every thread: a line is one write.
// Failure  a line that cannot be written is lost.
#pragma once

#include <cstdint>

namespace backend {

void logInfo(const char *format, ...) __attribute__((format(printf, 1, 2)));
void logWarning(const char *format, ...) __attribute__((format(printf, 1, 2)));
void logError(const char *format, ...) __attribute__((format(printf, 1, 2)));

// Lets a handful of lines (or of other answers to a peer's misbehaviour) through in each second, so
// that a peer cannot fill the log or the channel.
struct RATE_LIMIT_T {
    std::int64_t second = 0;
    int used = 0;
};

bool rateAllows(RATE_LIMIT_T &limit, int per_second = 5);

} // namespace backend
