// Owns: the queued visits. Must not own: nodes (NameIndex) or watches (WatchMatcher).
// Thread: the task's. Ownership passes: Pop hands a job to TreeWalker or InitialScan.

#include "tree/WalkQueue.h"

#include "tree/Watch.h"

namespace Engine::FileNotify {

void WalkQueue::Push(DirNode& node, std::uint8_t reasons, Watch* owner) {
    Job job{&node, reasons, owner, 0};
    if (node.job != 0) {
        const Job waiting = JobOf(node);
        job.reasons |= waiting.reasons;
        if (waiting.owner != nullptr) job.owner = waiting.owner;
        if (LaneOf(job.reasons) == LaneOf(node.job)) {
            if (job.owner != waiting.owner) ++job.owner->jobs;
            Count(job.reasons & ~waiting.reasons, 1);
            node.job = job.reasons;
            job.tries = waiting.tries;
            JobOf(node) = job;
            return;
        }
        Cancel(node);
    }
    node.job = job.reasons;
    std::vector<Job>& lane = lanes_[LaneOf(node.job)];
    node.job_index = static_cast<std::uint32_t>(lane.size());
    lane.push_back(job);
    Count(job.reasons, 1);
    if (job.owner != nullptr) ++job.owner->jobs;
}

WalkQueue::Job WalkQueue::Pop(Lane lane) {
    if (Next(lane) == nullptr) return {};
    const Job job = lanes_[lane].back();
    Cancel(*job.node);
    lanes_[lane].pop_back();
    return job;
}

const WalkQueue::Job* WalkQueue::Next(Lane lane) {
    std::vector<Job>& jobs = lanes_[lane];
    while (!jobs.empty() && jobs.back().node == nullptr) jobs.pop_back();
    return jobs.empty() ? nullptr : &jobs.back();
}

void WalkQueue::PutBack(const Job& job) {
    Push(*job.node, job.reasons, job.owner);
    ++(JobOf(*job.node).tries = job.tries);
}

void WalkQueue::Cancel(DirNode& node) {
    if (node.job == 0) return;
    Job& job = JobOf(node);
    Count(job.reasons, -1);
    if (job.owner != nullptr) --job.owner->jobs;
    job = {};
    node.job = 0;
}

void WalkQueue::Disown(const Watch& owner) {
    for (auto& lane : lanes_) {
        for (Job& job : lane) {
            if (job.owner == &owner) job.owner = nullptr;
        }
    }
}

}  // namespace Engine::FileNotify
