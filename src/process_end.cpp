#include "src/process_end.h"

#include "common/log.h"

#include <cstdio>
#include <unistd.h>

// Present only in instrumented builds, whose reports an _exit would otherwise lose.
// NOLINTBEGIN(bugprone-reserved-identifier): the runtimes' names
extern "C" __attribute__((weak)) void __gcov_dump();
extern "C" __attribute__((weak)) void __lsan_do_leak_check();
// NOLINTEND(bugprone-reserved-identifier)

void terminateProcess(int status) noexcept
{
    flushLogLines();
    (void)std::fflush(stdout); // a failure cannot be reported any more
    (void)std::fflush(stderr);
    if (__gcov_dump != nullptr) __gcov_dump();
    if (__lsan_do_leak_check != nullptr) __lsan_do_leak_check();
    ::_exit(status);
}
