// The monotonic clock, in one place so that a test can put another in its place.
#pragma once

#include <cstdint>
#include <ctime>

timespec monotonic_now() noexcept;

inline std::int64_t milliseconds_of(const timespec &time) noexcept
{
    return static_cast<std::int64_t>(time.tv_sec) * 1000 + time.tv_nsec / 1000000;
}
