#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>

namespace Engine {

/// What was put back or removed lately. A restore moves each file into place, and that is told like
/// a move by anybody; with this, the echo of a restore can be told from an attack. One thread.
class RecentRestores {
  public:
    using Clock = std::chrono::steady_clock;

    /// So long an echo may be under way; a queue that is never empty makes it late.
    static constexpr std::chrono::seconds kEchoTime{60};
    static constexpr std::size_t kCapacity = 65536;  ///< the oldest is forgotten beyond that

    /// An object for good: its number goes to another one only when it is gone, and that one is
    /// born later.
    struct Identity {
        dev_t device = 0;
        ino_t inode = 0;
        std::int64_t born_ns = 0;  ///< 0: the file system does not tell

        bool operator==(const Identity& other) const {
            return device == other.device && inode == other.inode && born_ns == other.born_ns;
        }
    };

    /// `path`: a file, or a directory that was put back with all that it holds; `object`: what
    /// stands there since, if that is known.
    void Note(const std::string& path, Clock::time_point begun, Clock::time_point ended,
              std::optional<Identity> object = std::nullopt);

    /// Where the object with that number was put back, and what it was; null when none was lately.
    const std::pair<std::string, Identity>* FindInode(ino_t inode) const;

    /// Whether what was read at `read_time` may be told because of a restore.
    bool MayEcho(const std::string& path, Clock::time_point read_time) const;

    /// Whether `path` itself was put right since what was read at `read_time`.
    bool IsLaterThan(const std::string& path, Clock::time_point read_time) const;

  private:
    struct Span {
        Clock::time_point begun;
        Clock::time_point ended;
    };

    std::unordered_map<std::string, Span> latest_;  // by path without a trailing "/"
    std::unordered_map<ino_t, std::pair<std::string, Identity>> by_inode_;
    std::deque<std::pair<Clock::time_point, std::string>> by_age_;
};

}  // namespace Engine
