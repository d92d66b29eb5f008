#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string_view>
#include <vector>

namespace Engine::FileNotify {

inline std::uint32_t HashName(std::string_view name) {
    return static_cast<std::uint32_t>(std::hash<std::string_view>()(name));
}

/// A hash table of 32-bit values with 4 bytes per slot. The owner stores the keys and supplies
/// their hashes. Values must be below 2^32 - 2. Not thread-safe.
class HashSlots {
  public:
    static constexpr std::uint32_t kNotFound = 0xFFFFFFFFU;

    /// Returns the value under `hash` for which `matches(value)` is true, or kNotFound.
    template <typename Matches>
    std::uint32_t Find(std::uint32_t hash, Matches&& matches) const {
        for (std::size_t at = hash & Mask(); slots_[at] != kEmpty; at = (at + 1) & Mask()) {
            if (slots_[at] != kErased && matches(slots_[at] - kFirst)) return slots_[at] - kFirst;
        }
        return kNotFound;
    }

    /// Adds `value`. `hash_of(value)` returns the hash of any value in the table.
    template <typename HashOf>
    void Insert(std::uint32_t hash, std::uint32_t value, HashOf&& hash_of) {
        if ((used_ + 1) * 4 > slots_.size() * 3) Rebuild(hash_of);
        Put(hash, value);
        ++live_;
    }

    /// Removes `value`, which must be in the table under `hash`.
    void Erase(std::uint32_t hash, std::uint32_t value) {
        slots_[SlotOf(hash, value)] = kErased;
        --live_;
    }

    /// Replaces `value`, which must be in the table under `hash`, by another value of that hash.
    void Replace(std::uint32_t hash, std::uint32_t value, std::uint32_t by) {
        slots_[SlotOf(hash, value)] = by + kFirst;
    }

  private:
    static constexpr std::uint32_t kEmpty = 0;
    static constexpr std::uint32_t kErased = 1;
    static constexpr std::uint32_t kFirst = 2;
    static constexpr std::size_t kSmallest = 64;

    std::size_t Mask() const { return slots_.size() - 1; }

    std::size_t SlotOf(std::uint32_t hash, std::uint32_t value) const {
        std::size_t at = hash & Mask();
        while (slots_[at] != value + kFirst) at = (at + 1) & Mask();
        return at;
    }

    void Put(std::uint32_t hash, std::uint32_t value) {
        std::size_t at = hash & Mask();
        while (slots_[at] > kErased) at = (at + 1) & Mask();
        if (slots_[at] == kEmpty) ++used_;
        slots_[at] = value + kFirst;
    }

    template <typename HashOf>
    void Rebuild(HashOf&& hash_of) {
        std::size_t size = kSmallest;
        while (size < (live_ + 1) * 2) size *= 2;
        std::vector<std::uint32_t> old(size, kEmpty);
        old.swap(slots_);
        used_ = 0;
        for (const std::uint32_t slot : old) {
            if (slot > kErased) Put(hash_of(slot - kFirst), slot - kFirst);
        }
    }

    std::vector<std::uint32_t> slots_ = std::vector<std::uint32_t>(kSmallest, kEmpty);
    std::size_t used_ = 0;  ///< slots with values or erased values
    std::size_t live_ = 0;
};

}  // namespace Engine::FileNotify
