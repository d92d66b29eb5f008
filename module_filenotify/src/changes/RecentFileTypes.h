#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string_view>
#include <unordered_map>

namespace Engine::FileNotify {

/// Remembers whether the last disappeared paths were directories. So a link that replaces a
/// directory is recognised. The oldest paths are forgotten. Owned by TreeChanges. Not thread-safe.
class RecentFileTypes {
  public:
    void Remember(std::string_view path, bool was_directory);

    /// Returns true when `path` disappeared as another kind of object. Forgets the path.
    bool TakeChanged(std::string_view path, bool is_directory);

    static constexpr std::size_t kCapacity = 65536;

  private:
    struct Entry {
        bool was_directory;
        std::uint64_t serial;
    };

    std::unordered_map<std::size_t, Entry> kinds_;  ///< by the hash of the path
    std::deque<std::pair<std::size_t, std::uint64_t>> order_;
    std::uint64_t serial_ = 0;
};

}  // namespace Engine::FileNotify
