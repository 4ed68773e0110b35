#include "tests/support/fake_clock.h"

#include "utility/monotonic_clock.h"

#include <sys/select.h>
#include <unistd.h>
#include <utility>

namespace {

constexpr std::int64_t US_PER_S = 1000000;

std::int64_t g_now_us = fake_clock::START_S * US_PER_S;
std::int64_t g_wall_s = fake_clock::WALL_S;
std::string g_sleeps;
std::function<void()> g_on_sleep;

} // namespace

timespec monotonic_now() noexcept
{
    return {g_now_us / US_PER_S, static_cast<long>(g_now_us % US_PER_S * 1000)};
}

// The linker puts these in the places of the C library's functions (--wrap).
extern "C" {
int __real_select(int count, fd_set *read, fd_set *write, fd_set *error, timeval *timeout);

int __wrap_usleep(useconds_t us)
{
    g_now_us += us;
    g_sleeps += std::to_string(us / 1000) + " ";
    if (g_on_sleep) g_on_sleep();
    return 0;
}

time_t __wrap_time(time_t *)
{
    return g_wall_s;
}

int __wrap_select(int count, fd_set *read, fd_set *write, fd_set *error, timeval *timeout)
{
    timeval at_once{};
    const int ready = __real_select(count, read, write, error, &at_once);
    if (ready == 0) g_now_us += timeout->tv_sec * US_PER_S + timeout->tv_usec;
    return ready;
}
}

void fake_clock::reset()
{
    g_now_us = START_S * US_PER_S;
    g_sleeps.clear();
    g_on_sleep = nullptr;
}

void fake_clock::setWall(std::int64_t seconds)
{
    g_wall_s = seconds;
}

void fake_clock::advance(std::int64_t seconds)
{
    g_now_us += seconds * US_PER_S;
}

std::int64_t fake_clock::seconds()
{
    return g_now_us / US_PER_S;
}

std::string fake_clock::takeSleeps()
{
    return std::exchange(g_sleeps, {});
}

void fake_clock::onSleep(std::function<void()> action)
{
    g_on_sleep = std::move(action);
}
