#include "keep/pace.h"

#include <algorithm>

namespace keep {

namespace {

constexpr double WINDOW_MIN = 1024;
constexpr double WINDOW_MAX = 64.0 * 1024 * 1024;
constexpr double STEP_MAX = 2.0; // of a round, either way
constexpr Seconds EMPTY_WAIT = TARGET_WAIT / 4;
constexpr Seconds ROUND_MIN{0.001};
constexpr auto BASE_LIFE = std::chrono::seconds(60);
constexpr auto PROBE_AFTER = std::chrono::seconds(30);
constexpr Seconds PROBE_TIME{0.2}; // and a round trip
constexpr double CHUNK_UNKNOWN = 1024;

Clock::duration clockTime(Seconds time)
{
    return std::chrono::duration_cast<Clock::duration>(time);
}

} // namespace

void BaseTime::see(Seconds round_trip, Time now) noexcept
{
    if (!since_) since_ = now;
    if (now - *since_ >= BASE_LIFE) {
        previous_ = current_;
        current_ = round_trip;
        since_ = now;
    }
    current_ = std::min(current_, round_trip);
}

Seconds BaseTime::get() const noexcept
{
    return std::min(current_, previous_);
}

std::size_t Pace::room(Time now) const noexcept
{
    const double window = now < probing_until_ ? WINDOW_MIN : window_;
    const auto allowed = static_cast<std::size_t>(window);
    return allowed > under_way_ ? allowed - under_way_ : 0;
}

std::size_t Pace::chunk() const noexcept
{
    if (round_trip_ <= Seconds(0)) return static_cast<std::size_t>(CHUNK_UNKNOWN);
    const double bytes = window_ * (CHUNK_TIME / round_trip_);
    return std::max(CHUNK_MIN, static_cast<std::size_t>(std::min(bytes, WINDOW_MAX)));
}

std::optional<Time> Pace::wakeUp(Time now) const noexcept
{
    if (now >= probing_until_) return std::nullopt;
    return probing_until_;
}

void Pace::see(Seconds round_trip, Seconds base, Time now) noexcept
{
    const Seconds wait = std::max(Seconds(0), round_trip - base);
    if (wait < least_wait_) {
        least_wait_ = wait;
        base_of_least_ = base;
    }
    if (!round_began_) round_began_ = now;
    if (now - *round_began_ >= clockTime(std::max(ROUND_MIN, round_trip))) endRound(now);
}

void Pace::endRound(Time now) noexcept
{
    const bool is_empty = least_wait_ < EMPTY_WAIT;
    if (is_empty || !last_empty_) last_empty_ = now;
    round_trip_ = std::max(ROUND_MIN, base_of_least_ + least_wait_);
    if (now >= probing_until_) {
        double step =
            (base_of_least_ + TARGET_WAIT) / (base_of_least_ + std::max(ROUND_MIN, least_wait_));
        if (is_empty) step = STEP_MAX;
        step = std::clamp(step, 1 / STEP_MAX, STEP_MAX);
        if (was_short_ || step < 1) window_ = std::clamp(window_ * step, WINDOW_MIN, WINDOW_MAX);
        if (now - *last_empty_ >= PROBE_AFTER) {
            probing_until_ = now + clockTime(round_trip_ + PROBE_TIME);
            last_empty_ = now;
        }
    }
    was_short_ = false;
    least_wait_ = Seconds(1e9);
    round_began_ = now;
}

} // namespace keep
