#pragma once

#include <chrono>
#include <cstddef>
#include <deque>
#include <string>
#include <unordered_map>
#include <utility>

namespace Engine {

/// What was put back or removed lately. A restore moves each file into place, and that is told like
/// a move by anybody; with this, the echo of a restore can be told from an attack. One thread.
class OwnRestores {
  public:
    using Clock = std::chrono::steady_clock;

    /// So long an echo may be under way; a queue that is never empty makes it late.
    static constexpr std::chrono::seconds kEchoTime{60};
    static constexpr std::size_t kCapacity = 65536;  ///< the oldest is forgotten beyond that

    /// `path`: a file, or a directory that was put back with all that it holds.
    void Note(const std::string& path, Clock::time_point begun, Clock::time_point ended);

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
    std::deque<std::pair<Clock::time_point, std::string>> by_age_;
};

}  // namespace Engine
