#include "tests/line/line.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace {

constexpr double NS_PER_MS = 1e6, NS_PER_S = 1e9, BITS = 8;
constexpr double LEAST_QUEUE = 24000; // bytes; sixteen packets, which even thin lines' modems hold
constexpr double LONGEST_PACKET = 1500;
constexpr double LEAST_HOLD_MS = 20;
constexpr int OVERTAKERS = 3;

} // namespace

bool Line::isLater(const TRAVELLING_T &one, const TRAVELLING_T &other)
{
    return std::pair(one.due, one.number) > std::pair(other.due, other.number);
}

// 53 random bits, whatever a library's distributions do with them.
bool Line::chance(double percent)
{
    return percent > 0 && std::ldexp(static_cast<double>(random_() >> 11), -53) * 100 < percent;
}

double Line::queueLimit() const
{
    if (settings.queue_bytes > 0) return settings.queue_bytes;
    return std::max(LEAST_QUEUE, settings.rate / BITS * settings.queue / 1000);
}

Nanoseconds Line::timeOnLine(double bytes) const
{
    return settings.rate > 0 ? std::llround(bytes * BITS / settings.rate * NS_PER_S) : 0;
}

void Line::startSending()
{
    const WAITING_T &first = queue_.front();
    // From when it could begin, not from now: a late wake-up costs the line no rate.
    sent_at_ =
        std::max(first.came, free_at_) + timeOnLine(static_cast<double>(first.packet.size()));
}

void Line::take(Packet packet, Nanoseconds now)
{
    ++counts_.taken;
    if (is_cut_) {
        ++counts_.cut;
        return;
    }
    advance(now);
    if (settings.rate > 0 && static_cast<double>(queued_bytes_ + packet.size()) > queueLimit()) {
        ++counts_.overflowed;
        return;
    }
    queued_bytes_ += packet.size();
    queue_.push_back({now, std::move(packet)});
    if (queue_.size() == 1) startSending();
}

void Line::advance(Nanoseconds now)
{
    while (!queue_.empty() && sent_at_ <= now) {
        free_at_ = sent_at_;
        Packet packet = std::move(queue_.front().packet);
        queue_.pop_front();
        queued_bytes_ -= packet.size();
        launch(std::move(packet), free_at_);
        sent_at_ = NEVER;
        if (!queue_.empty()) startSending();
    }
}

void Line::launch(Packet packet, Nanoseconds left)
{
    if (chance(settings.loss)) {
        ++counts_.lost;
        return;
    }
    double way = settings.delay;
    if (settings.jitter > 0)
        way += settings.jitter * (std::ldexp(static_cast<double>(random_() >> 11), -52) - 1);
    Nanoseconds due = left + std::llround(std::max(way, 0.0) * NS_PER_MS);
    if (chance(settings.reorder)) {
        ++counts_.reordered;
        due += std::max(std::llround(LEAST_HOLD_MS * NS_PER_MS),
                        static_cast<long long>(timeOnLine(OVERTAKERS * LONGEST_PACKET)));
    } else {
        last_due_ = due = std::max(due, last_due_);
    }
    travelling_.push_back({due, number_++, std::move(packet)});
    std::push_heap(travelling_.begin(), travelling_.end(), isLater);
}

bool Line::deliver(Nanoseconds now, Packet &packet)
{
    advance(now);
    if (travelling_.empty() || travelling_.front().due > now) return false;
    std::pop_heap(travelling_.begin(), travelling_.end(), isLater);
    packet = std::move(travelling_.back().packet);
    travelling_.pop_back();
    ++counts_.delivered;
    return true;
}

Nanoseconds Line::nextEvent() const
{
    return travelling_.empty() ? sent_at_ : std::min(sent_at_, travelling_.front().due);
}

void Line::cut()
{
    counts_.cut += queue_.size() + travelling_.size();
    is_cut_ = true;
    queue_.clear();
    queued_bytes_ = 0;
    sent_at_ = NEVER;
    travelling_.clear();
}

void Line::restore()
{
    is_cut_ = false;
}
