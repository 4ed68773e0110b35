// Logger: one line on standard error for each call that reaches the level.
//
// Line     2026-11-22T19:20:11.123Z I remote_access_daemon src/file.cpp:120 function: text
//          UTC with milliseconds; D, I, W or E for the levels 0 to 3; module; source file and line;
//          function; text.
// Text     cut at 4096 bytes with "..."; control bytes and bytes that are not valid UTF-8 are
//          written as \r, \n, \t or \xHH, and one line end at the end of a text is dropped, so no
//          line can be forged by what a peer sent.
// Level    min_level of log_init, or "level=0" to "level=3" in LOGGER_CONF_PATH if that file exists
//          when log_init runs; any other content of the file is reported in one warning line and
//          ignored.
// Writing  a line is written before its call returns, unless its thread gathers lines (log_gather).
// Threads  every thread may log; lines never interleave. Not async-signal-safe.
// Failure  none is reported: a line that standard error does not take is lost. errno is kept.
// Cost     a call below the level costs a call and a compare; nothing is formatted.
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

#define LOGGER_CONF_PATH "/brimlock/gateway/build/config/logger.conf"

enum LOG_LEVEL { LOG_LEVEL_DEBUG = 0, LOG_LEVEL_INFO = 1, LOG_LEVEL_WARN = 2, LOG_LEVEL_ERROR = 3 };

// module     copied, at most 63 bytes; output 1 = standard error (the only one this library has)
// min_level  lowest level that is written, 0 to 3
// format     2 = the full line above; 1 = the text alone
// Call it once, before any log_print and before other threads exist. Until then nothing is written.
void log_init(const char *module, int output, int min_level, int format);

// color and tag are accepted for the sake of loggers that use them; this one does not.
void log_print(int level, const char *color, const char *tag, const char *file,
               const char *function, int line, const char *format, ...)
    __attribute__((format(printf, 7, 8)));

// For calls that come by the thousand: what follows makes one write of many lines. A logger without
// it can take this one's place, so callers ask first whether it is there (common/log.h).
//
// From now on lines of the calling thread below LOG_LEVEL_WARN may wait (on != 0) or not (0). Those
// that wait go out in their place before the next line that does not, of whichever thread; with one
// that finds 32 KiB of them, or the first of them 200 ms old; and with log_flush, which belongs
// before a wait of more than a moment (room in the channel takes up to 60 ms) and before the end of
// the process: what ends it without one takes them along.
void log_gather(int on);
// Bytes that wait.
int log_gathered(void);
void log_flush(void);

#ifdef __cplusplus
}
#endif
