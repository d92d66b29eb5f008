#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "index/DirNode.h"

namespace Engine::FileNotify {

struct Watch;

/// The directories that wait to be visited, the last one added first. Each stands here once, with
/// all the reasons why. Those whose visit announces something have a lane of their own, as they may
/// have to wait for the receivers; so have those of which nobody needs anything, as they come after
/// the others. Task's thread only.
class WalkQueue {
  public:
    /// Why a directory is visited; what it means for what is found is TreeWalker's.
    enum Reason : std::uint8_t {
        kFirst = 1,      ///< a watch was asked for: learn what is there, announce nothing
        kArrived = 2,    ///< the directory has appeared: announce all it holds
        kReconcile = 4,  ///< events may be missing: announce everything, present or gone
        kVerify = 8,     ///< see whether its kernel watch is still the right one
        kLook = 16       ///< it has no kernel watch: announce what is new in it or gone
    };

    struct Job {
        DirNode* node = nullptr;  ///< null: cancelled, or none left
        std::uint8_t reasons = 0;
        Watch* owner = nullptr;  ///< whose first walk, or walk after lost events, it belongs to
        std::uint8_t tries = 0;  ///< how often it was put back
    };

    enum Lane : std::size_t { kTelling, kSilent, kUnneeded, kLanes };

    /// `unneeded`: a visit that announces nothing comes after all others, and counts for no owner.
    void Push(DirNode& node, std::uint8_t reasons, Watch* owner, bool unneeded = false);
    Job Pop(Lane lane);

    /// What Pop will give; null: nothing. Valid until the queue is changed.
    const Job* Next(Lane lane);

    /// The job that was popped last could not be done yet: it is the next again.
    void PutBack(const Job& job);
    void Cancel(DirNode& node);
    void Disown(const Watch& owner);
    bool Empty() const { return Size() == 0; }
    bool Empty(Lane lane) const { return lanes_[lane].empty(); }
    std::size_t Size() const {
        return lanes_[kTelling].size() + lanes_[kSilent].size() + lanes_[kUnneeded].size();
    }

    /// A walk that announces everything is still under way.
    bool IsReconciling() const { return reconciling_ > 0; }

  private:
    void Count(std::uint8_t reasons, int change) {
        if ((reasons & kReconcile) != 0) reconciling_ += change;
    }

    static constexpr std::uint8_t kIsUnneeded = 128;  ///< in DirNode::job, beside the reasons

    static Lane LaneOf(std::uint8_t job) {
        if ((job & (kArrived | kReconcile | kLook)) != 0) return kTelling;
        return (job & kIsUnneeded) != 0 ? kUnneeded : kSilent;
    }
    Job& JobOf(const DirNode& node) { return lanes_[LaneOf(node.job)][node.job_index]; }

    std::array<std::vector<Job>, kLanes> lanes_;
    int reconciling_ = 0;
};

}  // namespace Engine::FileNotify
