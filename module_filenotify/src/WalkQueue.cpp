#include "WalkQueue.h"

#include "Watch.h"

namespace Engine::FileNotify {

void WalkQueue::Push(DirNode& node, std::uint8_t reasons, Watch* owner) {
    Count(reasons & ~node.job, 1);
    if (node.job != 0) {
        node.job |= reasons;
        Job& job = jobs_[node.job_index];
        job.reasons = node.job;
        if (job.owner != nullptr || owner == nullptr) return;
        job.owner = owner;
    } else {
        node.job = reasons;
        node.job_index = static_cast<std::uint32_t>(jobs_.size());
        jobs_.push_back({&node, reasons, owner, 0});
    }
    if (owner != nullptr) ++owner->jobs;
}

WalkQueue::Job WalkQueue::Pop() {
    if (Next() == nullptr) return {};
    const Job job = jobs_.back();
    jobs_.pop_back();
    job.node->job = 0;
    Count(job.reasons, -1);
    if (job.owner != nullptr) --job.owner->jobs;
    return job;
}

const WalkQueue::Job* WalkQueue::Next() {
    while (!jobs_.empty() && jobs_.back().node == nullptr) jobs_.pop_back();
    return jobs_.empty() ? nullptr : &jobs_.back();
}

void WalkQueue::PutBack(const Job& job) {
    Push(*job.node, job.reasons, job.owner);
    ++(jobs_[job.node->job_index].tries = job.tries);
}

void WalkQueue::Cancel(DirNode& node) {
    if (node.job == 0) return;
    Job& job = jobs_[node.job_index];
    if (job.owner != nullptr) --job.owner->jobs;
    Count(job.reasons, -1);
    job = {};
    node.job = 0;
}

void WalkQueue::Disown(const Watch& owner) {
    for (Job& job : jobs_) {
        if (job.owner == &owner) job.owner = nullptr;
    }
}

}  // namespace Engine::FileNotify
