#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "index/DirNode.h"

namespace Engine::FileNotify {

struct Watch;

/// The directories to visit, last in, first out. Each is queued once, with all its reasons. Owned
/// by WatchedTree. Not thread-safe.
///
/// Visits that announce changes have their own lane, because they wait for slow receivers. So have
/// low-priority directories, because they are visited after all others.
class WalkQueue {
  public:
    /// Why a directory is visited. TreeWalker decides what the reasons mean for its content.
    enum Reason : std::uint8_t {
        kFirst = 1,      ///< a new watch: index the content, announce nothing
        kArrived = 2,    ///< the directory appeared: announce its content
        kReconcile = 4,  ///< events were lost: announce everything present or gone
        kVerify = 8,     ///< check that its kernel watch is still the right one
        kPoll = 16       ///< it has no kernel watch: announce what is new or gone
    };

    struct Job {
        DirNode* node = nullptr;  ///< null: cancelled, or the lane is empty
        std::uint8_t reasons = 0;
        Watch* owner = nullptr;  ///< the watch whose walk it belongs to; may be null
        std::uint8_t tries = 0;  ///< number of PutBack calls
    };

    /// Visits that announce, and visits that only update the index.
    enum Lane : std::size_t { kAnnouncing, kIndexing, kLanes };

    /// Adds a visit, or adds the reasons to a queued one.
    void Push(DirNode& node, std::uint8_t reasons, Watch* owner);
    /// Removes and returns the next job; its node is null when the lane is empty.
    Job Pop(Lane lane);

    /// The job that Pop will return; null when the lane is empty. Valid until the queue changes.
    const Job* Next(Lane lane);

    /// Queues a popped job again as the next one.
    void PutBack(const Job& job);
    /// Removes the job of `node`, if any.
    void Cancel(DirNode& node);
    /// Clears `owner` in all jobs. Required before the watch is removed.
    void Disown(const Watch& owner);
    bool Empty() const { return Size() == 0; }
    bool Empty(Lane lane) const { return lanes_[lane].empty(); }
    std::size_t Size() const { return lanes_[kAnnouncing].size() + lanes_[kIndexing].size(); }

    /// True while a visit with kReconcile is queued.
    bool IsReconciling() const { return reconciling_ > 0; }

  private:
    void Count(std::uint8_t reasons, int change) {
        if ((reasons & kReconcile) != 0) reconciling_ += change;
    }

    static Lane LaneOf(std::uint8_t reasons) {
        return (reasons & (kArrived | kReconcile | kPoll)) != 0 ? kAnnouncing : kIndexing;
    }
    Job& JobOf(const DirNode& node) { return lanes_[LaneOf(node.job)][node.job_index]; }

    std::array<std::vector<Job>, kLanes> lanes_;
    int reconciling_ = 0;
};

}  // namespace Engine::FileNotify
