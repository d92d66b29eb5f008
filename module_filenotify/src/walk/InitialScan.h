#pragma once

#include <array>
#include <cstddef>
#include <functional>
#include <vector>

#include "tree/WatchedTree.h"
#include "walk/ScanWorkers.h"

namespace Engine::FileNotify {

/// The fast path of a first walk: unknown directories whose content is covered entirely and not
/// announced. Scans them in batches while the previous batch is added to the index. Leaves all
/// other directories in the queue for TreeWalker, which owns it. Not thread-safe.
class InitialScan {
  public:
    /// `drain_events` is called regularly so that the kernel's queue does not overflow.
    InitialScan(WatchedTree& tree, InotifyDescriptor& inotify, std::function<void()> drain_events);

    /// Visits about `budget` directories and names of a lane that announces nothing. Stops before
    /// the first directory that needs TreeWalker. Returns how many were visited. Blocks on disk
    /// reads.
    std::size_t Run(WalkQueue::Lane lane, std::size_t budget);

    /// Ends the second thread and frees memory. Run may be called again.
    void End();

  private:
    static constexpr std::size_t kBatchSize = 128;

    struct Batch {
        std::size_t count = 0;
        std::array<WalkQueue::Job, kBatchSize> jobs;
        std::array<std::uint32_t, kBatchSize> masks{};
        std::vector<DirectoryScan> scans;
    };

    void Collect(WalkQueue::Lane lane, Batch& batch);
    bool IsEligible(const DirNode& node, std::uint8_t reasons, std::uint32_t& mask) const;
    std::size_t AddToIndex(Batch& batch);
    void AddToIndex(const WalkQueue::Job& job, DirectoryScan& scan);
    void AddNames(const WalkQueue::Job& job, const DirListing& listing);

    WatchedTree& tree_;
    const std::function<void()> drain_events_;
    ScanWorkers workers_;
    Batch scanning_;  ///< in progress
    Batch scanned_;   ///< done, to be added to the index
};

}  // namespace Engine::FileNotify
