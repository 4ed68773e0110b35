// One direction of a line: a queue, a rate behind it, and the way to the other end.
// Times    nanoseconds of one clock that only goes forward; the caller says what time it is.
// Order    packets leave in the order in which they came, jitter or not; except those that are held
//          back to be overtaken.
// Threads  one.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <random>
#include <vector>

using Nanoseconds = std::int64_t;
constexpr Nanoseconds NEVER = INT64_MAX;

// How a direction behaves. Percentages are of packets, each drawn by itself.
struct LINE_SETTINGS_T {
    double rate = 0;        // bit/s of IP packets; 0: no limit, and so no queue
    double delay = 0;       // ms from the queue's end to the other side
    double jitter = 0;      // ms; up to so much more or less than the delay, drawn evenly
    double loss = 0;        // %; a lost packet has taken its time on the line
    double reorder = 0;     // %; held back until at least three others could overtake
    double queue = 300;     // ms of the rate, LEAST_QUEUE at least
    double queue_bytes = 0; // if not 0, the queue's length instead
};

struct LINE_COUNTS_T {
    std::uint64_t taken = 0, delivered = 0, lost = 0, overflowed = 0, cut = 0, reordered = 0;
};

using Packet = std::vector<std::uint8_t>;

class Line {
public:
    explicit Line(std::uint64_t seed) : random_{seed} {}

    // Packets that wait in the queue leave it at the new rate.
    LINE_SETTINGS_T settings;

    // A packet has come. It is dropped when the line is cut or the queue is full.
    void take(Packet packet, Nanoseconds now);

    // Whether one is at the other end by now; then it is moved to `packet`.
    bool deliver(Nanoseconds now, Packet &packet);

    // When deliver() may have the next one.
    Nanoseconds nextEvent() const;

    // Silence: what is under way is dropped, and so is all that comes, until restore().
    void cut();
    void restore();

    const LINE_COUNTS_T &counts() const
    {
        return counts_;
    }

private:
    struct WAITING_T {
        Nanoseconds came;
        Packet packet;
    };
    struct TRAVELLING_T {
        Nanoseconds due;
        std::uint64_t number; // of equal times the first one first
        Packet packet;
    };

    static bool isLater(const TRAVELLING_T &one, const TRAVELLING_T &other);
    bool chance(double percent);
    double queueLimit() const;
    Nanoseconds timeOnLine(double bytes) const;
    void startSending();
    void advance(Nanoseconds now);
    void launch(Packet packet, Nanoseconds left);

    std::mt19937_64 random_;
    std::deque<WAITING_T> queue_; // the first one is being sent
    std::size_t queued_bytes_ = 0;
    Nanoseconds sent_at_ = NEVER; // when the first one has left the queue
    Nanoseconds free_at_ = 0;     // when the one before it had
    Nanoseconds last_due_ = 0;
    std::vector<TRAVELLING_T> travelling_; // a heap, whose first one is due next
    std::uint64_t number_ = 0;
    bool is_cut_ = false;
    LINE_COUNTS_T counts_;
};
