// Why a step failed, in words an operator can act on. The step fills it and returns; the connection
// logs it, once.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <string_view>

namespace ws {

struct FAILURE_T {
    char text[400];
};

// Always false, so that a step can end with `return fail(failure, ...)`.
__attribute__((format(printf, 2, 3))) inline bool fail(FAILURE_T &failure, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    (void)std::vsnprintf(failure.text, sizeof failure.text, format, arguments);
    va_end(arguments);
    return false;
}

// What a peer sent, fit for a log line: cut to dst, bytes outside printable ASCII replaced.
template <std::size_t N> const char *printable(std::string_view text, char (&dst)[N])
{
    const std::size_t length = text.copy(dst, N - 1);
    for (std::size_t i = 0; i < length; ++i)
        if (dst[i] < ' ' || dst[i] > '~') dst[i] = '?';
    dst[length] = '\0';
    return dst;
}

} // namespace ws
