#pragma once

#include <Poco/Logger.h>

#include <chrono>
#include <map>
#include <string>
#include <unordered_set>
#include <vector>

#include "Counters.h"
#include "DirNode.h"

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
    std::vector<DirNode*> All() const { return {nodes_.begin(), nodes_.end()}; }
    void Clear() { nodes_.clear(); }

  private:
    Poco::Logger* logger_;
    Counters& counters_;
    std::unordered_set<DirNode*> nodes_;
    std::map<int, std::chrono::steady_clock::time_point> next_log_;
};

}  // namespace Engine::FileNotify
