#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <memory>

namespace Engine::FileNotify {

/// Remembers hot files: files that changed again while an earlier change was pending. Their changes
/// have lower priority, so that thousands of rewritten files do not delay a page that changes once.
/// Owned by PendingQueue. Not thread-safe.
class HotFiles {
  public:
    using Time = std::chrono::steady_clock::time_point;

    /// Events within this time belong to one write.
    static constexpr std::chrono::milliseconds kOneWrite{5};
    static constexpr std::chrono::milliseconds kHotFor{1000};

    void MarkHot(std::size_t path_hash, Time now) {
        if (slots_ == nullptr) slots_ = std::make_unique<Slots>();
        (*slots_)[path_hash % kSlots] = {path_hash, now + kHotFor};
    }

    bool IsHot(std::size_t path_hash, Time now) const {
        if (slots_ == nullptr) return false;
        const Slot& slot = (*slots_)[path_hash % kSlots];
        return slot.path_hash == path_hash && now < slot.until;
    }

  private:
    struct Slot {
        std::size_t path_hash = 0;
        Time until{};
    };
    /// A hash collision only gives one hot file normal priority once.
    static constexpr std::size_t kSlots = 8192;
    using Slots = std::array<Slot, kSlots>;

    std::unique_ptr<Slots> slots_;
};

}  // namespace Engine::FileNotify
