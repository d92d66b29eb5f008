#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <memory>

namespace Engine::FileNotify {

/// Remembers hashes, each until its time. The memory is fixed: a hash replaces another one in the
/// same slot, so callers must work with forgotten hashes. Not thread-safe.
class ExpiringHashes {
  public:
    using Time = std::chrono::steady_clock::time_point;

    void Remember(std::size_t hash, Time until) {
        if (slots_ == nullptr) slots_ = std::make_unique<Slots>();
        (*slots_)[hash % kSlots] = {hash, until};
    }

    bool Has(std::size_t hash, Time now) const {
        if (slots_ == nullptr) return false;
        const Slot& slot = (*slots_)[hash % kSlots];
        return slot.hash == hash && now < slot.until;
    }

  private:
    struct Slot {
        std::size_t hash = 0;
        Time until{};
    };
    static constexpr std::size_t kSlots = 8192;
    using Slots = std::array<Slot, kSlots>;

    std::unique_ptr<Slots> slots_;  // made with the first hash
};

}  // namespace Engine::FileNotify
