#pragma once

#include "delivery/ExpiringHashes.h"

namespace Engine::FileNotify {

/// Debounces repeated changes of the same object during a storm: a change waits when the last one
/// was posted less than kQuietPeriod ago. Otherwise a file that is rewritten in a loop would be
/// checked a thousand times a second. The first change never waits. A hash collision only disables
/// debouncing for one file. Owned by PendingQueue. Not thread-safe.
class ModificationDebounce {
  public:
    using Time = ExpiringHashes::Time;

    static constexpr std::chrono::milliseconds kQuietPeriod{20};
    static constexpr std::chrono::milliseconds kMaxDelay{200};

    /// Outside a storm no change is a repeat.
    void SetStorm(bool storm) { storm_ = storm; }

    /// Call for each posted change. `hash`: of its path and mask.
    void OnPosted(std::size_t hash, Time now) {
        if (storm_) posted_.Remember(hash, now + kQuietPeriod);
    }

    bool IsRepeat(std::size_t hash, Time now) const { return storm_ && posted_.Has(hash, now); }

  private:
    bool storm_ = false;
    ExpiringHashes posted_;
};

}  // namespace Engine::FileNotify
