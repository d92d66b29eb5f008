#pragma once

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>

namespace Engine::FileNotify {

/// Debounces deletions. A single deletion is delivered at once; a burst waits for a quiet period.
/// Otherwise restored files would make a running `rm -rf` fail halfway, and each of the remaining
/// files would have to be restored by itself. Owned by PendingQueue. Not thread-safe.
///
/// Waiting saves at most the cost of undoing the waiting deletions, so the quiet period is the
/// number of deletions times the cost of one.
class DeletionDebounce {
  public:
    using Time = std::chrono::steady_clock::time_point;

    static constexpr std::chrono::milliseconds kStormGap{5};  ///< a smaller gap starts a burst
    static constexpr std::chrono::milliseconds kMinQuiet{1};
    static constexpr std::chrono::milliseconds kMaxQuiet{20};
    static constexpr std::chrono::milliseconds kMaxDelay{300};
    static constexpr std::chrono::nanoseconds kDefaultCost{1000000};  ///< before any measurement
    static constexpr std::chrono::nanoseconds kMinCost{1000};

    /// Call for each new deletion. `first`: no other deletion is waiting.
    void OnDeletion(Time now, bool first) {
        storm_ = (storm_ && !first) || now < last_ + kStormGap;
        last_ = now;
        if (first) since_ = now;
    }

    /// True when the `waiting` deletions (at least one) may be delivered. `cost`: the receiver's
    /// time to undo one deletion.
    bool IsDone(Time now, std::size_t waiting, std::chrono::nanoseconds cost) const {
        return (waiting == 1 && !storm_) || now >= Due(waiting, cost);
    }

    /// When IsDone becomes true unless further deletions arrive.
    Time Due(std::size_t waiting, std::chrono::nanoseconds cost) const {
        return std::min(last_ + QuietPeriod(waiting, cost), since_ + kMaxDelay);
    }

    static std::chrono::nanoseconds QuietPeriod(std::size_t waiting,
                                                std::chrono::nanoseconds cost) {
        const std::chrono::nanoseconds longest = kMaxQuiet;
        const auto most = static_cast<std::size_t>(longest / std::max(cost, kMinCost));
        if (waiting > most) return longest;
        return std::clamp<std::chrono::nanoseconds>(cost * waiting, kMinQuiet, longest);
    }

  private:
    Time last_{};
    Time since_{};
    bool storm_ = false;
};

}  // namespace Engine::FileNotify
