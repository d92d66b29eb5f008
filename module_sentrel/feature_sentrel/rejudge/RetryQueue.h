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

/// The changes whose undo failed or was interrupted, one for each path, at most `capacity`. Each is
/// retried with a growing back-off, at most kMostTries times. Not thread-safe.
class RetryQueue {
  public:
    using Clock = std::chrono::steady_clock;

    static constexpr std::size_t kCapacity = 4096;

    explicit RetryQueue(std::size_t capacity = kCapacity) : capacity_(capacity) {}

    /// The back-off doubles from one second to ten minutes: three quarters of an hour in all.
    static constexpr unsigned int kMostTries = 12;

    enum class Kept { kYes, kGivenUp, kNoRoom };

    /// `change.attempt` counts the failed tries, this one included. A path that already waits keeps
    /// its turn.
    Kept Keep(FileChange change, Clock::time_point now);

    /// Takes out the change that has been due longest.
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
