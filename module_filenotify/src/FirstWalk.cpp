// Owns: the directories being surveyed, between the queue and the index.
// Not: the second thread (SurveyTeam). Nothing is under way between two calls of Run, so events are
// only ever handled with the index knowing of every kernel watch. Thread: the task's.

#include "FirstWalk.h"

#include <climits>
#include <utility>

namespace Engine::FileNotify {

FirstWalk::FirstWalk(WatchedTree& tree, InotifyDescriptor& inotify, std::function<void()> between)
    : tree_(tree), between_(between), team_(inotify, std::move(between)) {}

std::size_t FirstWalk::Run(WalkQueue::Lane lane, std::size_t budget) {
    std::size_t done = 0;
    Collect(lane, ahead_);
    while (ahead_.count != 0) {
        if (ahead_.count == kAtOnce && tree_.queue.Size() >= kAtOnce) team_.Reinforce();
        team_.Begin(ahead_.surveys, ahead_.count);
        done += TakeIn(behind_);
        team_.Finish();
        std::swap(ahead_, behind_);
        between_();
        if (done >= budget) break;
        Collect(lane, ahead_);
        if (ahead_.count != 0) continue;
        done += TakeIn(behind_);
        Collect(lane, ahead_);
    }
    return done + TakeIn(behind_);
}

void FirstWalk::End() {
    team_.Dismiss();
    ahead_ = {};
    behind_ = {};
}

void FirstWalk::Collect(WalkQueue::Lane lane, Batch& batch) {
    while (batch.count < kAtOnce) {
        const WalkQueue::Job* next = tree_.queue.Next(lane);
        std::uint32_t mask = 0;
        if (next == nullptr || !IsForMe(*next->node, next->reasons, mask)) return;
        auto parent = tree_.opener.Share(*next->node->parent);
        if (parent == nullptr) {
            next->node->Set(DirNode::kByItself, true);
            return;
        }
        if (batch.surveys.size() <= batch.count) batch.surveys.emplace_back();
        DirSurvey& survey = batch.surveys[batch.count];
        survey.parent = std::move(parent);
        survey.name = next->node->name.c_str();
        survey.mask = mask;
        batch.jobs[batch.count++] = tree_.queue.Pop(lane);
    }
}

bool FirstWalk::IsForMe(const DirNode& node, std::uint8_t reasons, std::uint32_t& mask) const {
    constexpr std::uint8_t kNotSoSimple = DirNode::kListed | DirNode::kWaitedFor |
                                          DirNode::kUnwatched | DirNode::kThroughLink |
                                          DirNode::kPartial | DirNode::kByItself;
    if (reasons != WalkQueue::kFirst || (node.flags & kNotSoSimple) != 0) return false;
    if (node.parent == nullptr || node.wd >= 0 || node.inode != 0) return false;
    if (node.files.Size() != 0 || !node.dirs.All().empty()) return false;
    return tree_.coverage.TakesAllIn(node, mask) && NameIndex::PathLength(node) < PATH_MAX;
}

std::size_t FirstWalk::TakeIn(Batch& batch) {
    std::size_t done = 0;
    for (std::size_t at = 0; at < batch.count; ++at) {
        DirSurvey& survey = batch.surveys[at];
        TakeIn(batch.jobs[at], survey);
        done += 1 + survey.listing.Count();
        survey.parent.reset();
        survey.listing.Clear();
    }
    batch.count = 0;
    return done;
}

void FirstWalk::TakeIn(const WalkQueue::Job& job, DirSurvey& survey) {
    DirNode& node = *job.node;
    if (survey.wd >= 0) {
        tree_.table.Add(node, survey.wd, survey.mask);
        node.inode = survey.inode;
    }
    if (survey.error != 0) {
        // TreeWalker tries again and finds out what is wrong.
        node.Set(DirNode::kByItself, true);
        tree_.Enqueue(node, job.reasons, job.owner);
        return;
    }
    AddNames(job, survey.listing);
    node.Set(DirNode::kListed, true);
    node.Set(DirNode::kInitial, false);
    if (survey.directory.IsOpen()) tree_.opener.Keep(node, std::move(survey.directory));
}

void FirstWalk::AddNames(const WalkQueue::Job& job, const DirListing& listing) {
    DirNode& node = *job.node;
    const bool is_initial = node.Is(DirNode::kInitial);
    node.dirs.Reserve(listing.directories.Count());
    listing.directories.ForEach([&](std::string_view name) {
        DirNode& child = tree_.index.AddDirectory(node, name);
        child.Set(DirNode::kInitial, is_initial);
        tree_.Enqueue(child, job.reasons, job.owner);
    });
    if (listing.is_snapshot) {
        tree_.index.SetFiles(node, listing.others);
        return;
    }
    listing.others.ForEach([&](std::string_view name) {
        if (node.dirs.Find(name) == nullptr) tree_.index.AddFile(node, name);
    });
    node.files.Shrink();
}

}  // namespace Engine::FileNotify
