#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "changes/ChangeRouter.h"
#include "changes/TreePruner.h"
#include "tree/WatchedTree.h"

namespace Engine::FileNotify {

/// Resolves the path of every watch to its root. When a component is missing, it watches the
/// deepest existing directory until the next component appears. Owned by NotifyCore. Not
/// thread-safe.
class RootTracker {
  public:
    /// Registers itself as the tree's detach handler.
    RootTracker(WatchedTree& tree, ChangeRouter& router, TreePruner& pruner);

    /// Adds a watch, or changes the options of the one with this subscription.
    void Start(const WatchRequest& request);
    /// Removes the watch; an unknown one is not an error.
    void Stop(const Subscription* subscription);

    /// Call for each name that appears or disappears, after its event was announced.
    void NameAppeared(const DirNode& dir, std::string_view name, bool is_directory);
    void NameGone(const DirNode& dir, std::string_view name);

    /// Resolves the paths that may have changed. Blocks on disk reads.
    void ResolveChanged();

    /// Marks all paths as changed. With `reconcile`, events were lost: announces every root and
    /// queues walks that announce everything below.
    void ResolveAll(bool reconcile);

    /// The directory that is the root of the watch; null when there is none.
    DirNode* RootNode(const Watch& watch) const;

    /// How many names are known in and below the directory `path` of the subscription's watch. None
    /// when it is unknown, or when the watch does not request changes of directories.
    std::optional<std::size_t> NamesBelow(const Subscription& subscription,
                                          const std::string& path) const;

  private:
    void DetachFrom(DirNode& node);
    void Resolve(Watch& watch);
    DirNode* StepInto(DirNode& dir, std::string_view name);
    DirNode* AddStep(DirNode& dir, std::string_view name);
    void CheckRoot(Watch& watch, bool parent_is_new);
    void RootFound(Watch& watch, bool is_directory);
    void LoseRoot(Watch& watch);
    void EnqueueWalk(Watch& watch, std::uint8_t reasons);

    WatchedTree& tree_;
    ChangeRouter& router_;
    TreePruner& pruner_;
    bool any_unresolved_ = false;
};

}  // namespace Engine::FileNotify
