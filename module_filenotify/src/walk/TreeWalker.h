#pragma once

#include <cstddef>
#include <functional>

#include "changes/TreeChanges.h"
#include "walk/DirLister.h"
#include "walk/InitialScan.h"

namespace Engine::FileNotify {

/// Visits the directories of the walk queue: kernel watch first, then the listing, so that what
/// appears between is seen by one or both. Task's thread only.
class TreeWalker {
  public:
    /// `between` is called while a huge directory is read.
    TreeWalker(WatchedTree& tree, InotifyDescriptor& inotify, ChangeRouter& router,
               TreeChanges& changes, RootTracker& roots, std::function<void()> between);

    /// Visits until about `budget` directories and names are done, half of them for nobody to be
    /// told of: neither kind of walk waits for the end of the other. Without `may_tell` only those.
    /// False: nothing is left.
    bool Step(std::size_t budget, bool may_tell);

    /// Gives back what only a walk needs.
    void End() { initial_scan_.End(); }

    /// Takes the directory, or the highest one above it that is not where it should be, for gone,
    /// and what has its name now for new. For when no event tells so: a directory without a kernel
    /// watch is on the way, or something was mounted there.
    void DropVanished(DirNode& node);

  private:
    void StepLane(WalkQueue::Lane lane, std::size_t budget);
    /// How many directories and names were looked at; 0: it has to wait for events.
    std::size_t Visit(const WalkQueue::Job& job);
    std::size_t List(DirNode& node, const WalkQueue::Job& job, std::uint8_t reasons);
    std::size_t Descend(const DirNode& node, Watch* owner);
    void Found(DirNode& node, std::string_view name, bool is_directory, std::uint8_t reasons,
               Watch* owner);
    void AnnounceMissing(DirNode& node);

    WatchedTree& tree_;
    ChangeRouter& router_;
    TreeChanges& changes_;
    RootTracker& roots_;
    std::function<void()> between_;
    InitialScan initial_scan_;
    DirListing listing_;
};

}  // namespace Engine::FileNotify
