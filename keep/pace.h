// How much may be under way, so that the queue in front of a session stays short: delay-based
// congestion control. What is sent counts as under way until it is acknowledged. The time that
// takes, less the shortest time seen (the base), is what it has waited in queues. Once a round trip
// the window is multiplied by
//     (base + target) / (base + the least wait of the round),
// which moves it in one or two rounds to where the queue is the target's length, whatever the rate
// is, and shares a line evenly among several such windows: FAST TCP (D. Wei and others, IEEE/ACM
// Transactions on Networking 14(6), 2006). LEDBAT (RFC 6817) has the same target and signal, but
// moves by a constant per round trip, so it takes minutes to find a fast line. While the queue is
// almost empty the window doubles, as in a slow start.
// The least wait of a round counts, so that a few late acknowledgements (a retransmission, a busy
// machine) do not shrink it. A standing queue would become part of the base in time; so, when none
// has been seen empty for PROBE_AFTER, the window closes for a moment and the base is seen again.
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

constexpr Seconds TARGET_WAIT{0.1};
constexpr Seconds CHUNK_TIME{0.05}; // that one chunk takes at the measured rate, at most
constexpr std::size_t CHUNK_MIN = 256;

// The shortest round trip of the last one to two minutes.
class BaseTime {
public:
    void see(Seconds round_trip, Time now) noexcept;
    Seconds get() const noexcept;
    // unknown: what it is before anything has been seen.
    Seconds getOr(Seconds unknown) const noexcept
    {
        return since_ ? get() : unknown;
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
    // The largest piece that does not hold up others for more than CHUNK_TIME.
    std::size_t chunk() const noexcept;
    // Something waits for room: the window is what limits.
    void isShort() noexcept
    {
        was_short_ = true;
    }
    void sent(std::size_t count) noexcept
    {
        under_way_ += count;
    }
    // Acknowledged, or lost with their carrier.
    void gone(std::size_t count) noexcept
    {
        under_way_ -= count;
    }
    // What an acknowledgement has shown.
    void see(Seconds round_trip, Seconds base, Time now) noexcept;

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

    double window_ = 8192;
    std::size_t under_way_ = 0;
    Seconds round_trip_{0}; // of the last round, with its wait; 0: not known
    Seconds least_wait_{1e9};
    Seconds base_of_least_{0};
    std::optional<Time> round_began_;
    bool was_short_ = false;
    std::optional<Time> last_empty_; // when the queue was seen (almost) empty
    Time probing_until_{};
};

} // namespace keep
