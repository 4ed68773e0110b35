#include "backend/api/rate.h"

#include <algorithm>
#include <cmath>

namespace backend {

constexpr char OTHERS[] = ""; // the name of what those beyond the limit share
constexpr auto PRUNE_PAUSE = std::chrono::seconds(1);

double RateTable::tokensOf(const BUCKET_T &bucket, Clock::time_point now) const
{
    const double seconds = std::chrono::duration<double>(now - bucket.filled_at).count();
    return std::min(burst_, bucket.tokens + seconds * per_second_);
}

// A full bucket says no more than one that is not there.
RateTable::BUCKET_T &RateTable::bucketOf(const std::string &name, Clock::time_point now)
{
    const auto found = buckets_.find(name);
    if (found != buckets_.end()) return found->second;
    if (buckets_.size() >= RATE_NAMES_MAX && now - pruned_at_ >= PRUNE_PAUSE) {
        pruned_at_ = now;
        std::erase_if(buckets_,
                      [&](const auto &pair) { return tokensOf(pair.second, now) >= burst_; });
    }
    const bool is_full = buckets_.size() >= RATE_NAMES_MAX;
    return buckets_.try_emplace(is_full ? OTHERS : name, BUCKET_T{burst_, now}).first->second;
}

bool RateTable::take(const std::string &name, Clock::time_point now)
{
    BUCKET_T &bucket = bucketOf(name, now);
    bucket.tokens = tokensOf(bucket, now);
    bucket.filled_at = now;
    if (bucket.tokens < 1) return false;
    bucket.tokens -= 1;
    return true;
}

unsigned RateTable::waitSeconds() const
{
    return static_cast<unsigned>(std::max(1.0, std::ceil(1 / per_second_)));
}

} // namespace backend
