#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

namespace Engine::FileNotify {

/// A list of names of 1 to 255 bytes; each is stored as a length byte and the name. The format of
/// directory listings and of NameSet. Not thread-safe.
class PackedNames {
  public:
    /// Ignores names that are empty or too long.
    void Append(std::string_view name) {
        if (name.empty() || name.size() > 255) return;
        bytes_.push_back(static_cast<char>(name.size()));
        bytes_.insert(bytes_.end(), name.begin(), name.end());
        ++count_;
    }

    void Clear() {
        bytes_.clear();
        count_ = 0;
    }

    template <typename Each>
    void ForEach(Each&& each) const {
        for (std::size_t at = 0; at < bytes_.size();) {
            const auto size = static_cast<unsigned char>(bytes_[at]);
            each(std::string_view(bytes_.data() + at + 1, size));
            at += 1U + size;
        }
    }

    std::uint32_t Count() const { return count_; }
    const std::vector<char>& Bytes() const { return bytes_; }

  private:
    std::vector<char> bytes_;
    std::uint32_t count_ = 0;
};

}  // namespace Engine::FileNotify
