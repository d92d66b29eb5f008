#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <memory>

namespace Engine::FileNotify {

/// Remembers which files are rewritten again and again: those that changed once more while an
/// earlier change still waited. Such changes go behind those of other files, so that whoever keeps
/// thousands of files changing does not delay the page that is changed once. Not thread-safe.
class HotFiles {
  public:
    using Time = std::chrono::steady_clock::time_point;

    /// A write is several events; what comes so much later is another one.
    static constexpr std::chrono::milliseconds kOneWrite{5};
    static constexpr std::chrono::milliseconds kLasts{1000};

    void Note(std::size_t path_hash, Time now) {
        if (slots_ == nullptr) slots_ = std::make_unique<Slots>();
        (*slots_)[path_hash % kSlots] = {path_hash, now + kLasts};
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
    /// A hash collision only lets a hot file go first once.
    static constexpr std::size_t kSlots = 8192;
    using Slots = std::array<Slot, kSlots>;

    std::unique_ptr<Slots> slots_;
};

}  // namespace Engine::FileNotify
