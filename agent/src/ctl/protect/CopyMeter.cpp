// Owns the last count. It must not know when the copies are complete (the agent does).
#include "ctl/protect/CopyMeter.h"

#include <baseline/TreeWalk.h>
#include <sdk/files/PathAnchor.h>
#include <sdk/time/TimeUtils.h>

#include <algorithm>

namespace Ctl {

namespace {

constexpr std::int64_t kRestFactor = 9;  ///< of the time that the last count took
constexpr std::int64_t kShortestRestMs = 300;

}  // namespace

void CopyMeter::LookAt(const std::string& copies) {
    const std::lock_guard<std::mutex> lock(mutex_);
    copies_ = copies;
}

ComparisonProgress CopyMeter::Measure() {
    const std::int64_t begun = SDK::TimeUtils::GetMonotonicMs();
    std::string copies;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        copies = copies_;
    }
    last_.total = total_;
    if (copies.empty() || begun < next_at_) return last_;
    CountAnew(copies);
    const std::int64_t ended = SDK::TimeUtils::GetMonotonicMs();
    next_at_ = ended + std::max(kShortestRestMs, kRestFactor * (ended - begun));
    return last_;
}

void CopyMeter::CountAnew(const std::string& copies) {
    const auto anchor = SDK::PathAnchor::Open(copies);
    if (anchor == nullptr) return;
    ComparisonProgress count{0, total_, 0};
    Baseline::TreeWalk walk(Baseline::TreeRoot{anchor.get()});
    while (!is_over_ && walk.Next()) {
        ++count.done;
        if (S_ISREG(walk.Object().info.st_mode)) {
            count.bytes += static_cast<std::uint64_t>(walk.Object().info.st_size);
        }
    }
    if (is_over_) return;
    count.done = std::min(count.done, total_);
    last_ = count;
}

}  // namespace Ctl
