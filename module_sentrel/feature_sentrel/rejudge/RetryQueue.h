#pragma once

#include <chrono>
#include <cstddef>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>

#include "feature_sentrel/event_path/FileChange.h"

namespace Engine {

/// The changes whose undoing failed or was interrupted, one for each path, at most `capacity`. Each
/// comes up again to be judged anew, at growing distances, kMostTries times at most. One thread.
class RetryQueue {
  public:
    using Clock = std::chrono::steady_clock;

    static constexpr std::size_t kCapacity = 4096;

    explicit RetryQueue(std::size_t capacity = kCapacity) : capacity_(capacity) {}

    /// The distances go from one second, doubled, to ten minutes: three quarters of an hour.
    static constexpr unsigned int kMostTries = 12;

    enum class Kept { kYes, kGivenUp, kNoRoom };

    /// `change.attempt` counts the tries that came to nothing, this one included. A path that waits
    /// already keeps its turn.
    Kept Keep(FileChange change, Clock::time_point now);

    /// Takes out what is due, the one that has waited longest.
    std::optional<FileChange> TakeDue(Clock::time_point now);

    std::size_t Size() const { return waiting_.size(); }
    bool IsHalfFull() const { return 2 * waiting_.size() >= capacity_; }
    void Clear();

  private:
    using Path = std::pair<std::string, std::string>;  // watch id, path
    using Turn = std::pair<Clock::time_point, Path>;

    const std::size_t capacity_;
    std::map<Path, FileChange> waiting_;
    std::set<Turn> turns_;
};

}  // namespace Engine
