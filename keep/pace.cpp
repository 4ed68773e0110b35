#include "keep/pace.h"

#include <algorithm>

namespace keep {

namespace {

constexpr double WINDOW_MIN = 512;
constexpr double WINDOW_MAX = 64.0 * 1024 * 1024;
constexpr double STEP_DOWN = 0.5; // of a round, at most
constexpr Seconds NONE{1e9};
constexpr Seconds EMPTY_WAIT = TARGET_WAIT / 4;
constexpr Seconds ROUND_MIN{0.005};
constexpr auto BASE_LIFE = std::chrono::seconds(60);
constexpr auto PROBE_AFTER = std::chrono::seconds(30);
constexpr auto DOUBT_AFTER = std::chrono::seconds(2); // the last one, when a base is doubted
constexpr Seconds PROBE_TIME{0.2};                    // and a round trip
constexpr double PROBE_SHARE = 0.75;                  // of what the line holds
constexpr double PIECE_UNKNOWN = 1024;

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

Seconds BaseTime::getOr(Seconds unknown) const noexcept
{
    return since_ ? std::min(current_, previous_) : unknown;
}

std::size_t Pace::room(Time now) const noexcept
{
    const auto allowed = static_cast<std::size_t>(now < probing_until_ ? probing_window_ : window_);
    return allowed > under_way_ ? allowed - under_way_ : 0;
}

std::size_t Pace::piece(Time now) const noexcept
{
    double bytes = PIECE_UNKNOWN;
    if (round_trip_ > Seconds(0)) bytes = window_ * (PIECE_TIME / round_trip_);
    const double window = now < probing_until_ ? probing_window_ : window_;
    bytes = std::min({bytes, window / 4, static_cast<double>(PIECE_MAX)});
    return std::max(PIECE_MIN, static_cast<std::size_t>(bytes));
}

std::optional<Time> Pace::wakeUp(Time now) const noexcept
{
    if (now >= probing_until_) return std::nullopt;
    return probing_until_;
}

void Pace::acknowledged(std::size_t count) noexcept
{
    under_way_ -= count;
    acknowledged_ += static_cast<double>(count);
    if (is_growing_ && is_short_)
        window_ = std::min(window_ + static_cast<double>(count), WINDOW_MAX);
}

void Pace::see(Seconds round_trip, Seconds base, Seconds least_base, Time now) noexcept
{
    least_base_ = least_base;
    // What was sent for the sake of the base found an empty queue, and tells nothing of the window.
    if (now - clockTime(round_trip) < probing_until_) {
        began_.reset();
        return;
    }
    if (!began_) {
        began_ = now;
        acknowledged_ = 0;
        least_wait_ = NONE;
    }
    const Seconds wait = std::max(Seconds(0), round_trip - base);
    if (wait < least_wait_) {
        least_wait_ = wait;
        base_ = base;
    }
    // A queue that has just begun ends the growth at once: it is a round old.
    if (now - *began_ >= clockTime(std::max(ROUND_MIN, base_ + least_wait_))) endRound(now);
}

void Pace::endRound(Time now) noexcept
{
    const Seconds lasted = now - *began_;
    const double rate = acknowledged_ / lasted.count();
    round_trip_ = std::max(ROUND_MIN, base_ + least_wait_);
    const bool is_empty = least_wait_ < EMPTY_WAIT;
    if (is_empty || !last_empty_) last_empty_ = now;
    // Somebody else may have filled the queue: that is no measure of what this one could send.
    if (!is_empty && (is_short_ || least_wait_ > 2 * TARGET_WAIT)) {
        const double wanted = rate * (base_ + TARGET_WAIT).count();
        window_ = std::clamp(wanted, std::max(WINDOW_MIN, window_ * STEP_DOWN), WINDOW_MAX);
    }
    is_growing_ = is_empty;
    is_short_ = false;
    acknowledged_ = 0;
    least_wait_ = NONE;
    began_ = now;
    const bool is_doubt_due = is_base_doubted_ && (!probed_ || now - *probed_ >= DOUBT_AFTER);
    if (is_doubt_due || now - *last_empty_ >= PROBE_AFTER) probe(rate, now);
}

void Pace::probe(double rate, Time now) noexcept
{
    probing_window_ = std::max(WINDOW_MIN, rate * least_base_.count() * PROBE_SHARE);
    probed_ = now;
    is_base_doubted_ = false;
    probing_until_ = now + clockTime(round_trip_ + PROBE_TIME);
    last_empty_ = now;
    began_.reset();
}

} // namespace keep
