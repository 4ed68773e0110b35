// The output of a tool may still be in a buffer when its work is done: only the flush shows whether
// it arrives.
#pragma once

#include <cerrno>
#include <cstdio>
#include <cstring>

// False, with a line on standard error, when some of it could not be written.
inline bool flush_output(const char *program)
{
    if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0) return true;
    (void)std::fprintf(stderr, "%s: standard output: %s\n", program, std::strerror(errno));
    return false;
}
