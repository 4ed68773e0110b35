// Random identifiers for messages and sessions: letters and digits in the sequence of rand(), which
// the daemon never seeds, so every run produces the same one. They are names, not secrets.
//
// Threads  the sequence and the shared buffer are process-wide: the proxy thread alone uses them.
#pragma once

#include <cstddef>

constexpr std::size_t MSG_ID_SIZE = 32; // the shared buffer
constexpr std::size_t MSG_ID_LEN = 30;  // characters of an identifier

// Fills n - 1 random characters and a NUL; n = 0 leaves the buffer untouched. Returns the buffer.
char *randomString(char *buffer, std::size_t n) noexcept;

// A fresh identifier in the one shared buffer: copy it before the next call.
const char *generateMsgId() noexcept;
