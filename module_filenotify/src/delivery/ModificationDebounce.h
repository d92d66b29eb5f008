#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <memory>

namespace Engine::FileNotify {

/// Debounces repeated changes of the same object during a storm: a change waits when the last one
/// was posted less than kQuietPeriod ago. Otherwise a file that is rewritten in a loop would be
/// checked a thousand times a second. The first change never waits. Owned by PendingQueue. Not
/// thread-safe.
class ModificationDebounce {
  public:
    using Time = std::chrono::steady_clock::time_point;

    static constexpr std::chrono::milliseconds kQuietPeriod{20};
    static constexpr std::chrono::milliseconds kMaxDelay{200};

    /// Outside a storm no change is a repeat.
    void SetStorm(bool storm) {
        storm_ = storm;
        if (storm && posted_ == nullptr) posted_ = std::make_unique<Posted>();
    }

    /// Call for each posted change. `hash`: of its path and mask.
    void OnPosted(std::size_t hash, Time now) {
        if (storm_) SlotOf(hash) = {hash, now};
    }

    bool IsRepeat(std::size_t hash, Time now) const {
        if (!storm_) return false;
        const Post& last = SlotOf(hash);
        return last.hash == hash && now < last.time + kQuietPeriod;
    }

  private:
    struct Post {
        std::size_t hash = 0;
        Time time{};
    };
    /// A hash collision only disables debouncing for one file.
    static constexpr std::size_t kSlots = 8192;
    using Posted = std::array<Post, kSlots>;

    Post& SlotOf(std::size_t hash) const { return (*posted_)[hash % kSlots]; }

    bool storm_ = false;
    std::unique_ptr<Posted> posted_;
};

}  // namespace Engine::FileNotify
