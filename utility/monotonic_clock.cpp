#include "utility/monotonic_clock.h"

timespec monotonic_now() noexcept
{
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return now;
}
