#pragma once

#include <cstddef>
#include <functional>

#include "changes/TreeChanges.h"
#include "walk/DirLister.h"
#include "walk/InitialScan.h"

namespace Engine::FileNotify {

/// Visits the directories of the walk queue. Sets the kernel watch before it lists a directory, so
/// that no new name is missed. Owned by NotifyCore. Not thread-safe.
class TreeWalker {
  public:
    /// `drain_events` is called regularly so that the kernel's queue does not overflow.
    TreeWalker(WatchedTree& tree, InotifyDescriptor& inotify, ChangeRouter& router,
               TreeChanges& changes, std::function<void()> drain_events);

    /// Visits about `budget` directories and names, half of them in the announcing lane (only with
    /// `may_announce`) and half in the others, so that neither delays the other. Returns false when
    /// the queue is empty. Blocks on disk reads.
    bool Step(std::size_t budget, bool may_announce);

    /// Frees what only a walk needs.
    void End() { initial_scan_.End(); }

    /// Announces the deletion of the directory, or of its topmost missing parent, and the arrival
    /// of what has that name now. For cases without an event: an unwatched parent, or a mount.
    void DropVanished(DirNode& node);

  private:
    void StepLane(WalkQueue::Lane lane, std::size_t budget);
    /// Returns how many directories and names were visited; 0: the job must wait for events.
    std::size_t Visit(const WalkQueue::Job& job);
    /// The job's reasons and those that follow from the result of watching its directory.
    static std::uint8_t ReasonsAfter(const WalkQueue::Job& job, WatchTable::Result result);
    std::size_t VisitWatched(const WalkQueue::Job& job, std::uint8_t reasons);
    std::size_t List(DirNode& node, const WalkQueue::Job& job, std::uint8_t reasons);
    std::size_t Descend(const DirNode& node, Watch* owner);
    void Found(DirNode& node, std::string_view name, bool is_directory, std::uint8_t reasons,
               Watch* owner);
    void AnnounceMissing(DirNode& node);

    WatchedTree& tree_;
    ChangeRouter& router_;
    TreeChanges& changes_;
    std::function<void()> drain_events_;
    InitialScan initial_scan_;
    DirListing listing_;
};

}  // namespace Engine::FileNotify
