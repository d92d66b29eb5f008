#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string_view>
#include <unordered_map>

namespace Engine::FileNotify {

/// Remembers of the last paths that went away whether each was a directory, so that a link planted
/// where a directory was is known for what it is. Bounded: the oldest are forgotten. Task's thread
/// only.
class RecentFileTypes {
  public:
    void Remember(std::string_view path, bool was_directory);

    /// True when `path` was the other kind when it went away; the path is then forgotten.
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
