// How much may be under way, so that the queue in front of a session stays short: delay-based
// congestion control. What is sent counts as under way until it is acknowledged. The time that
// takes, less the shortest time seen (the base), is what it has waited in queues. Once a round trip
//   while the queue is empty   the window grows by what is acknowledged, as in a slow start;
//   otherwise                  what is acknowledged comes at the line's own rate, and
//                              window = rate * (base + target)
// so the queue has the target's length after a round or two, whatever the rate is. LEDBAT (RFC
// 6817) has the same signal and target, but moves its window by a constant per round trip: it takes
// minutes to find a fast line, and to leave one that has become slow.
// The least wait of a round counts, so that a few late acknowledgements (a retransmission, a busy
// machine) do not shrink the window. A standing queue would become part of the base in time; so,
// when it has not been seen empty for PROBE_AFTER, the window is for a moment less than the line
// itself holds, and the base is seen again. A session that begins while others fill the queue takes
// that queue for its base in the same way: doubtBase() has the base seen again soon.
// Threads  each is one thread's. Times are passed in.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>

namespace keep {

using Clock = std::chrono::steady_clock;
using Time = Clock::time_point;
using Seconds = std::chrono::duration<double>;

inline Clock::duration clockTime(Seconds time)
{
    return std::chrono::duration_cast<Clock::duration>(time);
}

constexpr Seconds TARGET_WAIT{0.1};
constexpr Seconds PIECE_TIME{0.05}; // that one piece takes at the measured rate, at most
constexpr std::size_t PIECE_MIN = 256;
constexpr std::size_t PIECE_MAX = std::size_t{64} * 1024;

// The shortest round trip of the last one to two minutes.
class BaseTime {
public:
    void see(Seconds round_trip, Time now) noexcept;
    // unknown: what it is before anything has been seen.
    Seconds getOr(Seconds unknown) const noexcept;
    bool isKnown() const noexcept
    {
        return since_.has_value();
    }

private:
    Seconds current_{1e9};
    Seconds previous_{1e9};
    std::optional<Time> since_;
};

class Pace {
public:
    // Bytes that may be sent now.
    std::size_t room(Time now) const noexcept;
    // What is sent in one go: small against the window, so that it is filled evenly, and so that
    // others need not wait for long.
    std::size_t piece(Time now) const noexcept;
    // Something waits for room: the window is what limits.
    void isShort() noexcept
    {
        is_short_ = true;
    }
    void sent(std::size_t count) noexcept
    {
        under_way_ += count;
    }
    void acknowledged(std::size_t count) noexcept;
    // With their carrier.
    void lost(std::size_t count) noexcept
    {
        under_way_ -= count;
    }
    // What an acknowledgement has shown, once it has been counted. least_base: of all who share the
    // line, as the others' may be too long.
    void see(Seconds round_trip, Seconds base, Seconds least_base, Time now) noexcept;
    // Somebody's base may have a queue in it.
    void doubtBase() noexcept
    {
        is_base_doubted_ = true;
    }

    std::size_t underWay() const noexcept
    {
        return under_way_;
    }
    std::size_t window() const noexcept
    {
        return static_cast<std::size_t>(window_);
    }
    // When room() grows by itself; nothing for never.
    std::optional<Time> wakeUp(Time now) const noexcept;

private:
    void endRound(Time now) noexcept;
    void probe(double rate, Time now) noexcept;

    double window_ = 8192;
    std::size_t under_way_ = 0;
    bool is_growing_ = true;
    bool is_short_ = false;
    bool is_base_doubted_ = false;
    Seconds least_base_{0};
    Seconds round_trip_{0}; // of the last round, with its wait; 0: not known

    // Of this round
    std::optional<Time> began_;
    double acknowledged_ = 0;
    Seconds least_wait_{1e9};
    Seconds base_{0}; // of the least wait

    std::optional<Time> last_empty_; // when the queue was seen almost empty
    std::optional<Time> probed_;
    Time probing_until_{};
    double probing_window_ = 0;
};

} // namespace keep
