#pragma once

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>

namespace Engine::FileNotify {

/// Decides how long deletions wait. One that comes alone does not; of several the whole batch waits
/// for a quiet spell: whoever deletes a tree is not through yet, and what is put back meanwhile is
/// in his way, so that he leaves a torso and each file is put back by itself. Not for several
/// threads.
class LossHold {
  public:
    using Time = std::chrono::steady_clock::time_point;

    static constexpr std::chrono::milliseconds kStormGap{5};  ///< closer ones are a storm
    static constexpr std::chrono::milliseconds kQuiet{20};
    static constexpr std::chrono::milliseconds kLongest{300};

    /// A deletion has come; `first`: none waited before it.
    void Note(Time now, bool first) {
        storm_ = (storm_ && !first) || now < last_ + kStormGap;
        last_ = now;
        if (first) since_ = now;
    }

    /// With `waiting` deletions there, more than none.
    bool IsOver(Time now, std::size_t waiting) const {
        return (waiting == 1 && !storm_) || now >= Due();
    }

    Time Due() const { return std::min(last_ + kQuiet, since_ + kLongest); }

  private:
    Time last_{};
    Time since_{};
    bool storm_ = false;
};

}  // namespace Engine::FileNotify
