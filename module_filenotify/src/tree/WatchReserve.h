#pragma once

#include <Poco/Logger.h>

#include <chrono>
#include <unordered_set>
#include <vector>

#include "status/Counters.h"
#include "tree/WatchMatcher.h"
#include "tree/WatchTable.h"

namespace Engine::FileNotify {

/// Decides which kernel watch ends when there are no more and a needed directory lacks one: that of
/// a directory of which the receivers need nothing (WatchMatcher::GivesWay). Remembers the
/// directories that are without a watch for that reason. Task's thread only.
class WatchReserve {
  public:
    using Time = std::chrono::steady_clock::time_point;

    WatchReserve(WatchTable& table, const WatchMatcher& matcher, Poco::Logger* logger,
                 Counters& counters)
        : table_(table), matcher_(matcher), logger_(logger), counters_(counters) {}

    /// Takes a watch off a directory that gives way. False: there is none, or none was found a
    /// moment ago; then the caller's directory goes without.
    bool FreeOne();

    /// `node` gives way and has no watch.
    void AddUnwatched(DirNode& node) { unwatched_.insert(&node); }
    void Remove(DirNode& node) { unwatched_.erase(&node); }
    bool IsUnwatched(DirNode& node) const { return unwatched_.count(&node) != 0; }
    std::size_t Unwatched() const { return unwatched_.size(); }
    /// At most `count` of them.
    std::vector<DirNode*> SomeUnwatched(std::size_t count) const;

  private:
    void Search(Time now);
    bool Release(int wd);

    WatchTable& table_;
    const WatchMatcher& matcher_;
    Poco::Logger* logger_;
    Counters& counters_;
    /// Found by the last search. By descriptor, not by node: the kernel gives none a second time,
    /// so one whose directory is gone leads nowhere.
    std::vector<int> found_;
    std::unordered_set<DirNode*> unwatched_;
    Time next_search_{};
    Time next_log_{};
};

}  // namespace Engine::FileNotify
