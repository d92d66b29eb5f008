#pragma once

#include <Poco/Logger.h>

#include <chrono>
#include <unordered_set>
#include <vector>

#include "status/Counters.h"
#include "tree/WatchMatcher.h"
#include "tree/WatchTable.h"

namespace Engine::FileNotify {

/// Evicts kernel watches of low-priority directories (WatchMatcher::IsLowPriority) when the kernel
/// has no more for others. Lists the low-priority directories without a watch. Owned by
/// WatchedTree. Not thread-safe.
class WatchEviction {
  public:
    using Time = std::chrono::steady_clock::time_point;

    WatchEviction(WatchTable& table, const WatchMatcher& matcher, Poco::Logger* logger,
                  Counters& counters)
        : table_(table), matcher_(matcher), logger_(logger), counters_(counters) {}

    /// Ends one watch. Returns false when there is no candidate, or when the last search within a
    /// second found none.
    bool EvictOne();

    /// Adds `node`, which has low priority and no watch.
    void AddUnwatched(DirNode& node) { unwatched_.insert(&node); }
    void Remove(DirNode& node) { unwatched_.erase(&node); }
    bool IsUnwatched(DirNode& node) const { return unwatched_.count(&node) != 0; }
    std::size_t Unwatched() const { return unwatched_.size(); }
    /// At most `count` of the listed directories.
    std::vector<DirNode*> SomeUnwatched(std::size_t count) const;

  private:
    void Search(Time now);
    bool Evict(int wd);

    WatchTable& table_;
    const WatchMatcher& matcher_;
    Poco::Logger* logger_;
    Counters& counters_;
    /// Watch descriptors from the last search. The kernel does not reuse them, so the descriptor of
    /// a removed directory is simply unknown.
    std::vector<int> candidates_;
    std::unordered_set<DirNode*> unwatched_;
    Time next_search_{};
    Time next_log_{};
};

}  // namespace Engine::FileNotify
