// The clocks of a test program, which stop until the program sleeps or waits. Takes the
// places of monotonic_now, usleep, time and select; a select with nothing ready waits its whole
// time-out on this clock, and none on the real one. One thread alone.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

namespace fake_clock {

constexpr std::int64_t START_S = 1000;      // of the monotonic clock
constexpr std::int64_t WALL_S = 1600000000; // of the wall clock, which never moves by itself

void reset();
void setWall(std::int64_t seconds); // reset leaves it
void advance(std::int64_t seconds);
std::int64_t seconds();
// The sleeps since the last call, in milliseconds, each followed by a blank.
std::string takeSleeps();
// Called at the end of every sleep, until the next reset.
void onSleep(std::function<void()> action);

} // namespace fake_clock
