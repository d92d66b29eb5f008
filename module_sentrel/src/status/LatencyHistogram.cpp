// Owns the counts of one histogram. It must not measure. Any thread, without a lock.
#include "status/LatencyHistogram.h"

#include <algorithm>

namespace Engine {

namespace {

constexpr double kUsPerMs = 1000;

}  // namespace

void LatencyHistogram::Note(double duration_ms) {
    if (duration_ms < 0) return;
    const auto* bound = std::lower_bound(kBounds.begin(), kBounds.end(), duration_ms);
    counts_.at(static_cast<std::size_t>(bound - kBounds.begin())).fetch_add(1);
    sum_us_.fetch_add(static_cast<std::uint64_t>(duration_ms * kUsPerMs));
}

Json::Value LatencyHistogram::ToJson() const {
    Json::Value answer(Json::objectValue);
    Json::Value& buckets = answer["buckets"] = Json::Value(Json::arrayValue);
    std::uint64_t total = 0;
    for (std::size_t at = 0; at < kBounds.size(); ++at) {
        total += counts_.at(at);
        Json::Value bucket(Json::objectValue);
        bucket["le_ms"] = kBounds.at(at);
        bucket["count"] = static_cast<Json::UInt64>(total);
        buckets.append(std::move(bucket));
    }
    answer["count"] = static_cast<Json::UInt64>(total + counts_.back());
    answer["sum_ms"] = static_cast<double>(sum_us_) / kUsPerMs;
    return answer;
}

void LatencyHistogram::Reset() {
    for (auto& count : counts_) count = 0;
    sum_us_ = 0;
}

}  // namespace Engine
