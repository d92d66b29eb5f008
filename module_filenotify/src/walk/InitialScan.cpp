// Owns: the directories being scanned, between the queue and the index.
// Not: the second thread (ScanWorkers). Nothing is under way between two calls of Run, so events
// are only ever handled with the index knowing of every kernel watch. Thread: the task's.

#include "walk/InitialScan.h"

#include <climits>
#include <utility>

namespace Engine::FileNotify {

InitialScan::InitialScan(WatchedTree& tree, InotifyDescriptor& inotify,
                         std::function<void()> between)
    : tree_(tree), between_(between), workers_(inotify, std::move(between)) {}

std::size_t InitialScan::Run(WalkQueue::Lane lane, std::size_t budget) {
    std::size_t done = 0;
    Collect(lane, ahead_);
    while (ahead_.count != 0) {
        if (ahead_.count == kAtOnce && tree_.queue.Size() >= kAtOnce) workers_.Reinforce();
        workers_.Begin(ahead_.scans, ahead_.count);
        done += TakeIn(behind_);
        workers_.Finish();
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

void InitialScan::End() {
    workers_.Dismiss();
    ahead_ = {};
    behind_ = {};
}

void InitialScan::Collect(WalkQueue::Lane lane, Batch& batch) {
    while (batch.count < kAtOnce) {
        const WalkQueue::Job* next = tree_.queue.Next(lane);
        std::uint32_t mask = 0;
        if (next == nullptr || !IsForMe(*next->node, next->reasons, mask)) return;
        auto parent = tree_.opener.Share(*next->node->parent);
        if (parent == nullptr) {
            next->node->Set(DirNode::kByItself, true);
            return;
        }
        if (batch.scans.size() <= batch.count) batch.scans.emplace_back();
        DirectoryScan& scan = batch.scans[batch.count];
        scan.parent = std::move(parent);
        scan.name = next->node->name.c_str();
        scan.mask = mask;
        batch.jobs[batch.count++] = tree_.queue.Pop(lane);
    }
}

bool InitialScan::IsForMe(const DirNode& node, std::uint8_t reasons, std::uint32_t& mask) const {
    constexpr std::uint8_t kNotSoSimple = DirNode::kListed | DirNode::kWaitedFor |
                                          DirNode::kUnwatched | DirNode::kThroughLink |
                                          DirNode::kPartial | DirNode::kByItself;
    if (reasons != WalkQueue::kFirst || (node.flags & kNotSoSimple) != 0) return false;
    if (node.parent == nullptr || node.wd >= 0 || node.inode != 0) return false;
    if (node.files.Size() != 0 || !node.dirs.All().empty()) return false;
    return tree_.matcher.TakesAllIn(node, mask) && NameIndex::PathLength(node) < PATH_MAX;
}

std::size_t InitialScan::TakeIn(Batch& batch) {
    std::size_t done = 0;
    for (std::size_t at = 0; at < batch.count; ++at) {
        DirectoryScan& scan = batch.scans[at];
        TakeIn(batch.jobs[at], scan);
        done += 1 + scan.listing.Count();
        scan.parent.reset();
        scan.listing.Clear();
    }
    batch.count = 0;
    return done;
}

void InitialScan::TakeIn(const WalkQueue::Job& job, DirectoryScan& scan) {
    DirNode& node = *job.node;
    if (scan.wd >= 0) {
        tree_.table.Add(node, scan.wd, scan.mask);
        node.inode = scan.inode;
    }
    if (scan.error != 0) {
        // TreeWalker tries again and finds out what is wrong.
        node.Set(DirNode::kByItself, true);
        tree_.Enqueue(node, job.reasons, job.owner);
        return;
    }
    AddNames(job, scan.listing);
    node.Set(DirNode::kListed, true);
    node.Set(DirNode::kInitial, false);
    if (scan.directory.IsOpen()) tree_.opener.Keep(node, std::move(scan.directory));
}

void InitialScan::AddNames(const WalkQueue::Job& job, const DirListing& listing) {
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
