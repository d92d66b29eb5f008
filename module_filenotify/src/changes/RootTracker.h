#pragma once

#include <string_view>

#include "changes/ChangeRouter.h"
#include "tree/WatchedTree.h"

namespace Engine::FileNotify {

/// Follows the path of every watch down to its root: where a part of it is missing, the deepest
/// directory that exists is watched until the next part appears. Task's thread only.
class RootTracker {
  public:
    RootTracker(WatchedTree& tree, ChangeRouter& router);

    /// A new watch, or new options for the one that has this subscription.
    void Start(const WatchRequest& request);
    void Stop(const Subscription* subscription);

    /// Called for each name that appears or goes, after the event itself has been announced.
    void NameAppeared(const DirNode& dir, std::string_view name, bool is_directory);
    void NameGone(const DirNode& dir, std::string_view name);

    /// Looks at the paths of the watches that have lost, or may have got, a part.
    void Settle();

    /// Looks at all of them again; with `reconcile` everything below is announced as well, since
    /// events have been lost.
    void LookAgain(bool reconcile);

    /// Forgets the directories that no watch needs any more.
    void Prune();

    bool PruneDue() const { return prune_due_; }

    /// The directory that is the root of the watch; null when there is none.
    DirNode* RootNode(const Watch& watch) const;

  private:
    void Going(DirNode& node);
    void Advance(Watch& watch);
    DirNode* StepInto(DirNode& dir, std::string_view name);
    void LookForRoot(Watch& watch, bool arrived_here);
    void RootFound(Watch& watch, bool is_directory);
    void PushWalk(Watch& watch, std::uint8_t reasons);
    bool IsNeededAsStep(const DirNode& dir) const;
    void PruneBelow(DirNode& dir);

    WatchedTree& tree_;
    ChangeRouter& router_;
    bool any_unsettled_ = false;
    bool prune_due_ = false;
};

}  // namespace Engine::FileNotify
