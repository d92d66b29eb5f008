#pragma once

#include <json/value.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

namespace Engine {

/// Counts durations in fixed buckets. Lock-free and thread-safe; a reader may see a duration in one
/// number and not yet in another.
class LatencyHistogram {
  public:
    /// Upper bounds of the buckets in milliseconds, inclusive. One more bucket takes all others.
    static constexpr std::array<double, 12> kBounds = {0.5, 1,   2.5, 5,    10,   25,
                                                       50,  100, 250, 1000, 5000, 60000};

    /// `duration_ms` below 0 means unknown and is not counted.
    void Note(double duration_ms);

    /// {"buckets":[{"le_ms","count"}...],"count","sum_ms"}. The counts are cumulative; "count" has
    /// all durations, also those above the last bound.
    Json::Value ToJson() const;

    void Reset();

  private:
    std::array<std::atomic<std::uint64_t>, kBounds.size() + 1> counts_{};
    std::atomic<std::uint64_t> sum_us_{0};
};

}  // namespace Engine
