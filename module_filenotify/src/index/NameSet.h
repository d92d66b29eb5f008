#pragma once

#include <cstdint>
#include <memory>
#include <string_view>
#include <vector>

#include "index/HashSlots.h"
#include "index/PackedNames.h"

namespace Engine::FileNotify {

/// A set of file names of 1 to 255 bytes without NUL. Uses one byte more than the name; large sets
/// add a hash table. Owned by a DirNode. Not thread-safe.
class NameSet {
  public:
    bool Contains(std::string_view name) const { return Find(name) != HashSlots::kNotFound; }
    bool Insert(std::string_view name);     ///< false: present already, empty or too long
    bool Erase(std::string_view name);      ///< false: not present
    void Assign(const PackedNames& names);  ///< replaces all; names must be unique
    void Clear();
    std::uint32_t Size() const { return count_; }

    /// Frees reserved memory.
    void Shrink() { bytes_.shrink_to_fit(); }

    /// Calls `each(std::string_view)`, which must not change the set.
    template <typename Each>
    void ForEach(Each&& each) const {
        for (std::uint32_t at = 0; at < bytes_.size(); at = Next(at)) {
            if (!IsErased(at)) each(NameAt(at));
        }
    }

  private:
    static constexpr std::uint32_t kHashedFrom = 24;
    static constexpr std::uint32_t kWorthCompacting = 1024;

    std::uint32_t Find(std::string_view name) const;
    std::string_view NameAt(std::uint32_t at) const {
        return {bytes_.data() + at + 1, static_cast<unsigned char>(bytes_[at])};
    }
    std::uint32_t Next(std::uint32_t at) const {
        return at + 1 + static_cast<unsigned char>(bytes_[at]);
    }
    bool IsErased(std::uint32_t at) const { return bytes_[at + 1] == '\0'; }
    void Compact();
    void BuildSlots();

    std::vector<char> bytes_;  ///< PackedNames' format; an erased name begins with NUL
    std::uint32_t count_ = 0;
    std::uint32_t erased_bytes_ = 0;
    std::unique_ptr<HashSlots> slots_;
};

}  // namespace Engine::FileNotify
