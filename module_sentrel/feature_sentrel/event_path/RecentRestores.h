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

/// Remembers what was restored or removed lately. A restore moves each file into place, and the
/// kernel reports that like any other move; this record tells the echo of a restore from an attack.
/// Not thread-safe.
class RecentRestores {
  public:
    using Clock = std::chrono::steady_clock;

    /// Upper bound of the delay of an echo; a queue that is never empty makes it late.
    static constexpr std::chrono::seconds kEchoTime{60};
    static constexpr std::size_t kCapacity = 65536;  ///< beyond it the oldest is forgotten

    /// Identifies an object for good: another object gets its inode number only after it is gone,
    /// and is born later.
    struct Identity {
        dev_t device = 0;
        ino_t inode = 0;
        std::int64_t born_ns = 0;  ///< 0: the file system does not know

        bool operator==(const Identity& other) const {
            return device == other.device && inode == other.inode && born_ns == other.born_ns;
        }
    };

    /// `path` is a file, or a directory that was restored with its content. `object` is what stands
    /// there since, if known.
    void Note(const std::string& path, Clock::time_point begun, Clock::time_point ended,
              std::optional<Identity> object = std::nullopt);

    /// The path and identity of the restored object with that number; null when there is none.
    const std::pair<std::string, Identity>* FindInode(ino_t inode) const;

    /// True when an event that was read at `read_time` may be the echo of a restore.
    bool MayEcho(const std::string& path, Clock::time_point read_time) const;

    /// True when `path` itself was restored after `read_time`.
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
