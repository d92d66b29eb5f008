#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <memory>

namespace Engine::FileNotify {

/// Decides which changes of contents wait in a storm, and how long: those of an object whose last
/// change has just been posted. Who writes the same files again and again would else have each of
/// them judged a thousand times a second. The first change of an object never waits. Not for
/// several threads.
class ModificationDebounce {
  public:
    using Time = std::chrono::steady_clock::time_point;

    static constexpr std::chrono::milliseconds kQuiet{20};
    static constexpr std::chrono::milliseconds kLongest{200};

    /// Nothing is a repeat but in a storm.
    void SetStorm(bool storm) {
        storm_ = storm;
        if (storm && posted_ == nullptr) posted_ = std::make_unique<Posted>();
    }

    void NotePosted(std::size_t hash, Time now) {
        if (storm_) SlotOf(hash) = {hash, now};
    }

    bool IsRepeat(std::size_t hash, Time now) const {
        if (!storm_) return false;
        const Post& last = SlotOf(hash);
        return last.hash == hash && now < last.time + kQuiet;
    }

  private:
    struct Post {
        std::size_t hash = 0;
        Time time{};
    };
    /// One that is overwritten by another only lets a repeat go at once.
    static constexpr std::size_t kSlots = 8192;
    using Posted = std::array<Post, kSlots>;

    Post& SlotOf(std::size_t hash) const { return (*posted_)[hash % kSlots]; }

    bool storm_ = false;
    std::unique_ptr<Posted> posted_;
};

}  // namespace Engine::FileNotify
