#pragma once

#include <array>
#include <cstddef>
#include <functional>
#include <vector>

#include "tree/WatchedTree.h"
#include "walk/ScanWorkers.h"

namespace Engine::FileNotify {

/// The quick way for what nearly all of a first walk is: a directory of which nothing is known, all
/// of whose names are wanted, and nobody is to be told. Many are scanned at a time, beside taking
/// the ones before into the index. Whatever is not so simple is left in the queue, for TreeWalker.
/// Task's thread only.
class InitialScan {
  public:
    /// `between` is called again and again: the kernel's queue must not fill up meanwhile.
    InitialScan(WatchedTree& tree, InotifyDescriptor& inotify, std::function<void()> between);

    /// Visits until about `budget` directories and names are done or the next in the lane is not
    /// for it. How many were done. The lane is one that announces nothing.
    std::size_t Run(WalkQueue::Lane lane, std::size_t budget);

    /// The walk is over: gives thread and memory back.
    void End();

  private:
    static constexpr std::size_t kAtOnce = 128;

    struct Batch {
        std::size_t count = 0;
        std::array<WalkQueue::Job, kAtOnce> jobs;
        std::array<std::uint32_t, kAtOnce> masks{};
        std::vector<DirectoryScan> scans;
    };

    void Collect(WalkQueue::Lane lane, Batch& batch);
    bool IsForMe(const DirNode& node, std::uint8_t reasons, std::uint32_t& mask) const;
    std::size_t TakeIn(Batch& batch);
    void TakeIn(const WalkQueue::Job& job, DirectoryScan& scan);
    void AddNames(const WalkQueue::Job& job, const DirListing& listing);

    WatchedTree& tree_;
    const std::function<void()> between_;
    ScanWorkers workers_;
    Batch ahead_;   ///< being scanned
    Batch behind_;  ///< scanned
};

}  // namespace Engine::FileNotify
