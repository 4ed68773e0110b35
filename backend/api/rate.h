// Token buckets, one for each of many names: `burst` at once, and `per_second` for good.
// Limits   RATE_NAMES_MAX names; those beyond share one bucket until others are full again.
// Threads  the caller's, one at a time.
#pragma once

#include <chrono>
#include <cstddef>
#include <map>
#include <string>

namespace backend {

constexpr std::size_t RATE_NAMES_MAX = 4096;

class RateTable {
public:
    using Clock = std::chrono::steady_clock;

    RateTable(double burst, double per_second) : burst_(burst), per_second_(per_second) {}

    // False when the bucket is empty.
    bool take(const std::string &name, Clock::time_point now = Clock::now());
    // Until a bucket that was empty has something again, in whole seconds.
    [[nodiscard]] unsigned waitSeconds() const;
    [[nodiscard]] std::size_t size() const
    {
        return buckets_.size();
    }

private:
    struct BUCKET_T {
        double tokens;
        Clock::time_point filled_at;
    };
    [[nodiscard]] double tokensOf(const BUCKET_T &bucket, Clock::time_point now) const;
    BUCKET_T &bucketOf(const std::string &name, Clock::time_point now);

    double burst_;
    double per_second_;
    std::map<std::string, BUCKET_T> buckets_;
    Clock::time_point pruned_at_;
};

} // namespace backend
