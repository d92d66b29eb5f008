// Owns: the batches of scans. Must not own: the second thread (ScanWorkers).
// Thread: the task's. Ownership passes: jobs come from WalkQueue, results go into WatchedTree.
//
// No scan is running between two calls of Run. So the index knows every kernel watch whenever
// events are handled.

#include "walk/InitialScan.h"

#include <climits>
#include <utility>

namespace Engine::FileNotify {

InitialScan::InitialScan(WatchedTree& tree, InotifyDescriptor& inotify,
                         std::function<void()> drain_events)
    : tree_(tree), drain_events_(drain_events), workers_(inotify, std::move(drain_events)) {}

std::size_t InitialScan::Run(WalkQueue::Lane lane, std::size_t budget) {
    std::size_t done = 0;
    Collect(lane, scanning_);
    while (scanning_.count != 0) {
        if (scanning_.count == kBatchSize && tree_.queue.Size() >= kBatchSize)
            workers_.StartHelper();
        workers_.Begin(scanning_.scans, scanning_.count);
        done += AddToIndex(scanned_);
        workers_.Finish();
        std::swap(scanning_, scanned_);
        drain_events_();
        if (done >= budget) break;
        Collect(lane, scanning_);
        if (scanning_.count != 0) continue;
        done += AddToIndex(scanned_);
        Collect(lane, scanning_);
    }
    return done + AddToIndex(scanned_);
}

void InitialScan::End() {
    workers_.StopHelper();
    scanning_ = {};
    scanned_ = {};
}

void InitialScan::Collect(WalkQueue::Lane lane, Batch& batch) {
    while (batch.count < kBatchSize) {
        const WalkQueue::Job* next = tree_.queue.Next(lane);
        std::uint32_t mask = 0;
        if (next == nullptr || !IsEligible(*next->node, next->reasons, mask)) return;
        auto parent = tree_.opener.Share(*next->node->parent);
        if (parent == nullptr) {
            next->node->Set(DirNode::kSlowPath, true);
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

bool InitialScan::IsEligible(const DirNode& node, std::uint8_t reasons, std::uint32_t& mask) const {
    constexpr std::uint8_t kIneligible = DirNode::kListed | DirNode::kHasAttached |
                                         DirNode::kUnwatched | DirNode::kThroughLink |
                                         DirNode::kPartial | DirNode::kSlowPath;
    if (reasons != WalkQueue::kFirst || (node.flags & kIneligible) != 0) return false;
    if (node.parent == nullptr || node.wd >= 0 || node.inode != 0) return false;
    if (node.files.Size() != 0 || !node.dirs.All().empty()) return false;
    return tree_.matcher.CoversAllIn(node, mask) && NameIndex::PathLength(node) < PATH_MAX;
}

std::size_t InitialScan::AddToIndex(Batch& batch) {
    std::size_t done = 0;
    for (std::size_t at = 0; at < batch.count; ++at) {
        DirectoryScan& scan = batch.scans[at];
        AddToIndex(batch.jobs[at], scan);
        done += 1 + scan.listing.Count();
        scan.parent.reset();
        scan.listing.Clear();
    }
    batch.count = 0;
    return done;
}

void InitialScan::AddToIndex(const WalkQueue::Job& job, DirectoryScan& scan) {
    DirNode& node = *job.node;
    if (scan.wd >= 0) {
        tree_.table.Add(node, scan.wd, scan.mask);
        node.inode = scan.inode;
    }
    if (scan.error != 0) {
        // TreeWalker tries again and handles the error.
        node.Set(DirNode::kSlowPath, true);
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
