// Owns: the listing of the directory being visited. Must not own: the walk queue (WatchedTree).
// Thread: the task's. Ownership passes: jobs come from WalkQueue and end here.

#include "walk/TreeWalker.h"

#include <sys/inotify.h>

#include <cerrno>
#include <string>
#include <unordered_set>
#include <utility>
#include <vector>

namespace Engine::FileNotify {

using Kind = NameIndex::Kind;

namespace {

constexpr std::uint8_t kTriesForMissing = 3;

// The mask that announces a found object; 0: no announcement.
std::uint32_t AnnouncementMask(std::uint8_t reasons, bool known, bool initial, bool is_directory) {
    if ((reasons & WalkQueue::kArrived) != 0) return IN_CREATE;
    const bool polls = (reasons & WalkQueue::kPoll) != 0;
    if ((reasons & WalkQueue::kReconcile) == 0) return polls && !known && !initial ? IN_CREATE : 0;
    // The first walk has not indexed it yet, so it may be old.
    if (!known && !initial) return IN_CREATE;
    return is_directory ? IN_ATTRIB : IN_MODIFY;
}

}  // namespace

TreeWalker::TreeWalker(WatchedTree& tree, InotifyDescriptor& inotify, ChangeRouter& router,
                       TreeChanges& changes, std::function<void()> drain_events)
    : tree_(tree),
      router_(router),
      changes_(changes),
      drain_events_(std::move(drain_events)),
      initial_scan_(tree, inotify, drain_events_) {}

bool TreeWalker::Step(std::size_t budget, bool may_announce) {
    router_.SetTime(std::chrono::steady_clock::now());
    if (may_announce) StepLane(WalkQueue::kAnnouncing, budget / 2);
    StepLane(WalkQueue::kIndexing, budget / 2);
    return !tree_.queue.Empty();
}

void TreeWalker::StepLane(WalkQueue::Lane lane, std::size_t budget) {
    for (std::size_t done = 0; done < budget;) {
        if (lane != WalkQueue::kAnnouncing) done += initial_scan_.Run(lane, budget - done);
        if (done >= budget) return;
        const WalkQueue::Job job = tree_.queue.Pop(lane);
        if (job.node == nullptr) return;
        const std::size_t seen = Visit(job);
        if (seen == 0) return;
        done += seen;
    }
}

std::size_t TreeWalker::Visit(const WalkQueue::Job& job) {
    DirNode& node = *job.node;
    node.Set(DirNode::kSlowPath, false);
    if (!tree_.matcher.IsWalked(node)) return 1;
    // It may be ignored since it was queued.
    if (tree_.matcher.IsIgnored(node)) {
        tree_.LeaveOut(node);
        return 1;
    }
    WatchTable::Result result = WatchTable::Result::kKept;
    const int error = tree_.EnsureWatched(node, result);
    if (WatchedTree::IsGone(error)) {
        // Deleted or moved: wait for the event that tells which.
        if (job.tries < kTriesForMissing) {
            tree_.queue.PutBack(job);
            return 0;
        }
        DropVanished(node);
        return 1;
    }
    // Without events the listing would become stale.
    if (error == ENAMETOOLONG) return 1;
    return VisitWatched(job, ReasonsAfter(job, result));
}

std::uint8_t TreeWalker::ReasonsAfter(const WalkQueue::Job& job, WatchTable::Result result) {
    if (result == WatchTable::Result::kReplaced) {
        return job.reasons | WalkQueue::kArrived | WalkQueue::kReconcile;
    }
    const bool was_unwatched = result == WatchTable::Result::kNew;
    const bool was_known = job.node->Is(DirNode::kListed) || job.reasons == WalkQueue::kVerify;
    return was_unwatched && was_known ? job.reasons | WalkQueue::kReconcile : job.reasons;
}

std::size_t TreeWalker::VisitWatched(const WalkQueue::Job& job, std::uint8_t reasons) {
    DirNode& node = *job.node;
    if (reasons == WalkQueue::kVerify) return 1;
    const bool is_known = node.Is(DirNode::kListed) && !node.Is(DirNode::kPartial);
    if ((reasons & ~WalkQueue::kVerify) == WalkQueue::kFirst && is_known) {
        return Descend(node, job.owner);
    }
    return List(node, job, reasons);
}

void TreeWalker::DropVanished(DirNode& node) {
    DirNode* top = &node;
    while (top->parent != nullptr && tree_.opener.Locate(*top->parent) < 0) top = top->parent;
    if (top->parent == nullptr) return;
    DirNode& dir = *top->parent;
    const std::string name = top->name;
    changes_.Gone(dir, name, !top->Is(DirNode::kThroughLink), IN_DELETE);
    changes_.Recheck(dir, name);
}

std::size_t TreeWalker::Descend(const DirNode& node, Watch* owner) {
    for (const auto& child : node.dirs.All()) {
        tree_.Enqueue(*child, WalkQueue::kFirst, owner);
    }
    return 1 + node.dirs.All().size();
}

std::size_t TreeWalker::List(DirNode& node, const WalkQueue::Job& job, std::uint8_t reasons) {
    const int located = tree_.opener.Locate(node);
    if (located < 0) return 1;
    const SDK::FileDescriptor directory = DirOpener::OpenForReading(located);
    if (!directory.IsOpen()) {
        if (!WatchedTree::IsGone(errno)) tree_.MarkUnwatched(node, errno);
        return 1;
    }
    node.Set(DirNode::kPartial, false);
    const int error = ListDirectory(directory.Get(), listing_, drain_events_);
    listing_.directories.ForEach(
        [&](std::string_view name) { Found(node, name, true, reasons, job.owner); });
    listing_.others.ForEach(
        [&](std::string_view name) { Found(node, name, false, reasons, job.owner); });
    constexpr std::uint8_t kAnnouncesMissing =
        WalkQueue::kArrived | WalkQueue::kReconcile | WalkQueue::kPoll;
    if (error == 0 && (reasons & kAnnouncesMissing) != 0) {
        AnnounceMissing(node);
    }
    node.Set(DirNode::kListed, true);
    node.Set(DirNode::kInitial, false);
    node.files.Shrink();
    return 1 + listing_.Count();
}

void TreeWalker::Found(DirNode& node, std::string_view name, bool is_directory,
                       std::uint8_t reasons, Watch* owner) {
    const Kind kind = is_directory ? Kind::kDirectory : Kind::kOther;
    const bool known = NameIndex::Lookup(node, name) == kind;
    const bool initial = node.Is(DirNode::kInitial);
    TreeChanges::Visit visit;
    visit.owner = owner;
    visit.initial = initial && (reasons & WalkQueue::kArrived) == 0;
    constexpr std::uint8_t kHandedDown =
        WalkQueue::kFirst | WalkQueue::kArrived | WalkQueue::kReconcile;
    visit.reasons = reasons & kHandedDown;
    if (!known && (reasons & (WalkQueue::kReconcile | WalkQueue::kPoll)) != 0) {
        visit.reasons |= initial ? WalkQueue::kFirst : WalkQueue::kArrived;
    }
    changes_.Appeared(node, name, is_directory,
                      AnnouncementMask(reasons, known, initial, is_directory), visit);
}

void TreeWalker::AnnounceMissing(DirNode& node) {
    std::unordered_set<std::string_view> present;
    listing_.directories.ForEach([&](std::string_view name) { present.insert(name); });
    listing_.others.ForEach([&](std::string_view name) { present.insert(name); });
    std::vector<std::pair<std::string, bool>> missing;
    for (const auto& child : node.dirs.All()) {
        if (present.count(child->name) == 0) {
            missing.emplace_back(child->name, !child->Is(DirNode::kThroughLink));
        }
    }
    node.files.ForEach([&](std::string_view name) {
        if (present.count(name) == 0) missing.emplace_back(name, false);
    });
    for (const auto& [name, is_directory] : missing) {
        changes_.Gone(node, name, is_directory, IN_DELETE);
    }
}

}  // namespace Engine::FileNotify
