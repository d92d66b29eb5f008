#pragma once

#include <chrono>

#include "tree/WatchedTree.h"

namespace Engine::FileNotify {

/// Removes directories from the tree that no watch needs any more. Owned by NotifyCore. Not
/// thread-safe.
class TreePruner {
  public:
    using Time = std::chrono::steady_clock::time_point;

    explicit TreePruner(WatchedTree& tree) : tree_(tree) {}

    /// Call when a watch was removed or changed.
    void Request() { requested_ = true; }
    /// Pruning waits until `due`, so that a policy can remove its watches and add them again.
    void Postpone(Time due) { due_ = due; }

    bool IsRequested() const { return requested_; }
    Time Due() const { return due_; }

    /// Prunes when it was requested and is due.
    void PruneIfDue(Time now);

  private:
    void Prune();
    void PruneChildren(DirNode& dir);

    WatchedTree& tree_;
    bool requested_ = false;
    Time due_{};
};

}  // namespace Engine::FileNotify
