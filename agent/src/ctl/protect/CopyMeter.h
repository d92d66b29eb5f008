#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include "ctl/baselines/ProgressDisplay.h"

namespace Ctl {

/// Counts how much of a tree has been copied, by looking at the copies. It spends at most a tenth
/// of the time on that. Measure is called on one thread, the others on any.
class CopyMeter {
  public:
    /// `total` objects are to be copied.
    explicit CopyMeter(std::size_t total) : total_(total) {}

    /// Where the copies are; nothing is counted before.
    void LookAt(const std::string& copies);

    /// The last count, or a new one. May block as long as reading the copies' directories takes.
    ComparisonProgress Measure();

    /// Ends a count at once, and all later ones.
    void Stop() { is_over_ = true; }

  private:
    void CountAnew(const std::string& copies);

    const std::size_t total_;
    std::atomic<bool> is_over_{false};
    std::mutex mutex_;  ///< guards the next one
    std::string copies_;
    ComparisonProgress last_;
    std::int64_t next_at_ = 0;  ///< monotonic milliseconds
};

}  // namespace Ctl
