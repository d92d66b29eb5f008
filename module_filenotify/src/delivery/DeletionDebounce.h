#pragma once

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>

namespace Engine::FileNotify {

/// Decides how long deletions wait. One that comes alone does not; of several the whole batch waits
/// for a quiet spell: whoever deletes a tree is not through yet, and what is put back meanwhile is
/// in his way, so that he leaves a torso and each file is put back by itself. Waiting saves at most
/// the work that waits, so a few deletions that cost little wait little. Not for several threads.
class DeletionDebounce {
  public:
    using Time = std::chrono::steady_clock::time_point;

    static constexpr std::chrono::milliseconds kStormGap{5};  ///< closer ones are a storm
    static constexpr std::chrono::milliseconds kShortestQuiet{1};
    static constexpr std::chrono::milliseconds kLongestQuiet{20};
    static constexpr std::chrono::milliseconds kLongest{300};
    static constexpr std::chrono::nanoseconds kUsualCost{1000000};  ///< until it is known
    static constexpr std::chrono::nanoseconds kLeastCost{1000};

    /// A deletion has come; `first`: none waited before it.
    void Note(Time now, bool first) {
        storm_ = (storm_ && !first) || now < last_ + kStormGap;
        last_ = now;
        if (first) since_ = now;
    }

    /// With `waiting` deletions there, more than none, of which the receiver needs `cost` to undo
    /// one.
    bool IsOver(Time now, std::size_t waiting, std::chrono::nanoseconds cost) const {
        return (waiting == 1 && !storm_) || now >= Due(waiting, cost);
    }

    Time Due(std::size_t waiting, std::chrono::nanoseconds cost) const {
        return std::min(last_ + Quiet(waiting, cost), since_ + kLongest);
    }

    static std::chrono::nanoseconds Quiet(std::size_t waiting, std::chrono::nanoseconds cost) {
        const std::chrono::nanoseconds longest = kLongestQuiet;
        const auto most = static_cast<std::size_t>(longest / std::max(cost, kLeastCost));
        if (waiting > most) return longest;
        return std::clamp<std::chrono::nanoseconds>(cost * waiting, kShortestQuiet, longest);
    }

  private:
    Time last_{};
    Time since_{};
    bool storm_ = false;
};

}  // namespace Engine::FileNotify
