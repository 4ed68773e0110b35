// The logger of the fuzz targets: formats every line, which reads what the line shows to its end,
// and writes none.
#include "platform/logger/logger.h"

#include <cstdarg>
#include <cstdio>

void log_print(int, const char *, const char *, const char *, const char *, int, const char *format,
               ...)
{
    static char text[56 * 1024]; // like the real one's
    std::va_list arguments;
    va_start(arguments, format);
    (void)std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
}
