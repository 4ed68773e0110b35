// The daemon's log calls. The text stays literal at the call so that a search finds it; never log
// from a lambda, because the line names the enclosing function.
#pragma once

#include "platform/logger/logger.h"

// Null where the logger has no such functions.
extern "C" {
// NOLINTBEGIN(readability-redundant-declaration): declared again to be weak
__attribute__((weak)) void log_gather(int on);
__attribute__((weak)) int log_gathered(void);
__attribute__((weak)) void log_flush(void);
// NOLINTEND(readability-redundant-declaration)
}

// Lines of this thread wait to be written together while it lives. For lines of single data
// messages alone: the caller flushes them with flushLogLines before a longer wait.
class GatheredLogLines {
public:
    explicit GatheredLogLines(bool on = true) noexcept : on_{on && log_gather != nullptr}
    {
        if (on_) log_gather(1);
    }
    ~GatheredLogLines()
    {
        if (on_) log_gather(0);
    }
    GatheredLogLines(const GatheredLogLines &) = delete;
    GatheredLogLines &operator=(const GatheredLogLines &) = delete;

private:
    const bool on_;
};

inline bool haveLogLinesGathered() noexcept
{
    return log_gathered != nullptr && log_gathered() > 0;
}

inline void flushLogLines() noexcept
{
    if (log_flush != nullptr) log_flush();
}

#define RA_LOG(level, ...)                                                                         \
    log_print(level, "color", "tag", __FILE__, __func__, __LINE__, __VA_ARGS__)
#define RA_DEBUG(...) RA_LOG(LOG_LEVEL_DEBUG, __VA_ARGS__)
#define RA_INFO(...) RA_LOG(LOG_LEVEL_INFO, __VA_ARGS__)
#define RA_WARN(...) RA_LOG(LOG_LEVEL_WARN, __VA_ARGS__)
#define RA_ERROR(...) RA_LOG(LOG_LEVEL_ERROR, __VA_ARGS__)

// For a helper that writes a line of the operation it works for: the line names that operation, as
// people search for it.
#define RA_LOG_FOR(owner, level, ...)                                                              \
    log_print(level, "color", "tag", __FILE__, owner, __LINE__, __VA_ARGS__)
#define RA_DEBUG_FOR(owner, ...) RA_LOG_FOR(owner, LOG_LEVEL_DEBUG, __VA_ARGS__)
#define RA_INFO_FOR(owner, ...) RA_LOG_FOR(owner, LOG_LEVEL_INFO, __VA_ARGS__)
#define RA_WARN_FOR(owner, ...) RA_LOG_FOR(owner, LOG_LEVEL_WARN, __VA_ARGS__)
#define RA_ERROR_FOR(owner, ...) RA_LOG_FOR(owner, LOG_LEVEL_ERROR, __VA_ARGS__)
