// The daemon's log calls. The text stays literal at the call so that a search finds it; never log
// from a lambda, because the line names the enclosing function.
#pragma once

#include "platform/logger/logger.h"

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
