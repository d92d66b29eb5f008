#pragma once

#include <Poco/Logger.h>

#include <chrono>
#include <map>
#include <string>
#include <unordered_map>
#include <vector>

#include "index/DirNode.h"
#include "status/Counters.h"
#include "status/StatusPublisher.h"

namespace Engine::FileNotify {

/// The directories that need a kernel watch and could not get one. Logs one of them per reason and
/// minute. Owned by WatchedTree. Not thread-safe.
class UnwatchedList {
  public:
    UnwatchedList(Poco::Logger* logger, Counters& counters)
        : logger_(logger), counters_(counters) {}

    /// Adds `node`, or updates its reason, an errno.
    void Add(DirNode& node, int error);
    void Remove(DirNode& node) { nodes_.erase(&node); }
    bool Contains(DirNode* node) const { return nodes_.count(node) != 0; }
    bool Empty() const { return nodes_.empty(); }
    std::vector<DirNode*> All() const;

    /// At most `count` of them with path and reason, for the status.
    std::vector<UnwatchedDirectory> Examples(std::size_t count) const;
    void Clear() { nodes_.clear(); }

  private:
    Poco::Logger* logger_;
    Counters& counters_;
    std::unordered_map<DirNode*, int> nodes_;  ///< with the last errno
    std::map<int, std::chrono::steady_clock::time_point> next_log_;
};

}  // namespace Engine::FileNotify
