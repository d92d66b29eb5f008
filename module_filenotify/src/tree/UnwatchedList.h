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

/// The directories that should be watched and could not be, and why the log knows of it: once per
/// cause and minute. Task's thread only.
class UnwatchedList {
  public:
    UnwatchedList(Poco::Logger* logger, Counters& counters)
        : logger_(logger), counters_(counters) {}

    void Add(DirNode& node, int error);
    void Remove(DirNode& node) { nodes_.erase(&node); }
    bool Contains(DirNode* node) const { return nodes_.count(node) != 0; }
    bool Empty() const { return nodes_.empty(); }
    std::vector<DirNode*> All() const;

    /// At most `count` of them, for people to look at.
    std::vector<UnwatchedDirectory> Examples(std::size_t count) const;
    void Clear() { nodes_.clear(); }

  private:
    Poco::Logger* logger_;
    Counters& counters_;
    std::unordered_map<DirNode*, int> nodes_;  ///< the last errno of each
    std::map<int, std::chrono::steady_clock::time_point> next_log_;
};

}  // namespace Engine::FileNotify
