#pragma once

#include <chrono>
#include <cstddef>

#include "walk/TreeWalker.h"

namespace Engine::FileNotify {

/// Tries again to watch the directories that need a kernel watch and have none (UnwatchedList).
/// Owned by NotifyCore. Not thread-safe.
class UnwatchedRetry {
  public:
    using Clock = std::chrono::steady_clock;

    /// `interval`: between two retries.
    UnwatchedRetry(WatchedTree& tree, RootTracker& roots, TreeWalker& walker,
                   std::chrono::milliseconds interval)
        : tree_(tree), roots_(roots), walker_(walker), interval_(interval) {}

    /// True when a directory has no kernel watch.
    bool IsPending() const;
    /// When to retry; later while a walk is queued, but not for ever.
    Clock::time_point Due() const;

    /// Retries a bounded number of directories when it is due. Blocks on disk reads.
    void RetryIfDue(Clock::time_point now);

  private:
    void RetryNeeded();
    bool RetryOne(DirNode& node, bool may_watch, bool& path_watched);

    WatchedTree& tree_;
    RootTracker& roots_;
    TreeWalker& walker_;
    const std::chrono::milliseconds interval_;
    Clock::time_point next_{};
    std::size_t position_ = 0;  ///< in the list of unwatched directories
};

}  // namespace Engine::FileNotify
