// Owns: nothing that outlives a step. Not: the queue of what to visit (WatchedTree).
// Thread: the task's.

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

constexpr std::uint8_t kTriesForGone = 3;

// How what a visit finds is announced; 0: not at all.
std::uint32_t AnnouncedAs(std::uint8_t reasons, bool known, bool initial, bool is_directory) {
    if ((reasons & WalkQueue::kArrived) != 0) return IN_CREATE;
    const bool looks = (reasons & WalkQueue::kLook) != 0;
    if ((reasons & WalkQueue::kReconcile) == 0) return looks && !known && !initial ? IN_CREATE : 0;
    // What a first walk has not reached yet may be there for long: not to be called new.
    if (!known && !initial) return IN_CREATE;
    return is_directory ? IN_ATTRIB : IN_MODIFY;
}

}  // namespace

TreeWalker::TreeWalker(WatchedTree& tree, InotifyDescriptor& inotify, ChangeRouter& router,
                       TreeChanges& changes, RootTracker& roots, std::function<void()> between)
    : tree_(tree),
      router_(router),
      changes_(changes),
      roots_(roots),
      between_(std::move(between)),
      initial_scan_(tree, inotify, between_) {}

bool TreeWalker::Step(std::size_t budget, bool may_tell) {
    router_.SetTime(std::chrono::steady_clock::now());
    if (may_tell) StepLane(WalkQueue::kTelling, budget / 2);
    StepLane(WalkQueue::kSilent, budget / 2);
    const bool others_wait = !tree_.queue.Empty(WalkQueue::kSilent) ||
                             (may_tell && !tree_.queue.Empty(WalkQueue::kTelling));
    if (!others_wait) StepLane(WalkQueue::kUnneeded, budget / 2);
    return !tree_.queue.Empty();
}

void TreeWalker::StepLane(WalkQueue::Lane lane, std::size_t budget) {
    for (std::size_t done = 0; done < budget;) {
        if (lane != WalkQueue::kTelling) done += initial_scan_.Run(lane, budget - done);
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
    node.Set(DirNode::kByItself, false);
    if (!tree_.matcher.IsWalked(node)) return 1;
    WatchTable::Result result = WatchTable::Result::kKept;
    const int error = tree_.EnsureWatched(node, result);
    if (WatchedTree::IsGone(error)) {
        // Deleted or moved: the event that tells which is on its way.
        if (job.tries < kTriesForGone) {
            tree_.queue.PutBack(job);
            return 0;
        }
        DropVanished(node);
        return 1;
    }
    // What nobody needs and nothing tells of is not listed either.
    if (error == ENAMETOOLONG || (error == ENOSPC && tree_.reserve.IsUnwatched(node))) return 1;
    std::uint8_t reasons = job.reasons;
    if (result == WatchTable::Result::kReplaced) {
        reasons |= WalkQueue::kArrived | WalkQueue::kReconcile;
    } else if (result == WatchTable::Result::kNew &&
               (node.Is(DirNode::kListed) || reasons == WalkQueue::kVerify)) {
        reasons |= WalkQueue::kReconcile;
    }
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
    const int error = ListDirectory(directory.Get(), listing_, between_);
    listing_.directories.ForEach(
        [&](std::string_view name) { Found(node, name, true, reasons, job.owner); });
    listing_.others.ForEach(
        [&](std::string_view name) { Found(node, name, false, reasons, job.owner); });
    constexpr std::uint8_t kTellsGone =
        WalkQueue::kArrived | WalkQueue::kReconcile | WalkQueue::kLook;
    if (error == 0 && (reasons & kTellsGone) != 0) {
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
    if (!known && (reasons & (WalkQueue::kReconcile | WalkQueue::kLook)) != 0) {
        visit.reasons |= initial ? WalkQueue::kFirst : WalkQueue::kArrived;
    }
    changes_.Appeared(node, name, is_directory, AnnouncedAs(reasons, known, initial, is_directory),
                      visit);
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
