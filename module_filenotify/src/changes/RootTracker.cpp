// Owns: nothing but flags; the watches are WatchMatcher's.
// Not: what lies below a root (TreeWalker). Thread: the task's.

#include "changes/RootTracker.h"

#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/stat.h>

#include <algorithm>
#include <string>
#include <utility>

namespace Engine::FileNotify {

RootTracker::RootTracker(WatchedTree& tree, ChangeRouter& router) : tree_(tree), router_(router) {
    tree_.SetGoing([this](DirNode& node) { Going(node); });
}

void RootTracker::Start(const WatchRequest& request) {
    if (Watch* known = tree_.matcher.Find(request.subscription.get())) {
        known->request = request;
        known->ended = false;
        known->unsettled = true;
        prune_due_ = true;
        if (known->root_present) PushWalk(*known, WalkQueue::kFirst);
    } else {
        auto watch = std::make_unique<Watch>();
        watch->request = request;
        tree_.matcher.Add(std::move(watch));
    }
    any_unsettled_ = true;
}

void RootTracker::Stop(const Subscription* subscription) {
    Watch* watch = tree_.matcher.Find(subscription);
    if (watch == nullptr) return;
    tree_.queue.Disown(*watch);
    tree_.matcher.Remove(*watch);
    prune_due_ = true;
}

void RootTracker::NameAppeared(const DirNode& dir, std::string_view name, bool is_directory) {
    for (Watch* watch : tree_.matcher.WaitingFor(&dir, name)) {
        if (!watch->AtParent()) {
            watch->unsettled = true;
            any_unsettled_ = true;
            continue;
        }
        watch->root_present = true;
        watch->was_present = true;
        watch->root_is_directory = is_directory;
        if (!is_directory) tree_.EnsureWatched(*watch->attach);
    }
}

void RootTracker::NameGone(const DirNode& dir, std::string_view name) {
    for (Watch* watch : tree_.matcher.WaitingFor(&dir, name)) {
        if (!watch->AtParent() || !watch->root_present) continue;
        watch->root_present = false;
        watch->ended = !watch->request.rewatch;
    }
}

void RootTracker::Going(DirNode& node) {
    for (const auto& owned : tree_.matcher.All()) {
        Watch& watch = *owned;
        if (watch.attach == nullptr || !NameIndex::IsWithin(*watch.attach, node)) continue;
        if (watch.AtParent() && watch.root_present) {
            router_.AnnounceRoot(watch, watch.root_is_directory ? IN_DELETE | IN_ISDIR : IN_DELETE);
            watch.root_present = false;
            watch.ended = !watch.request.rewatch;
        }
        std::size_t depth = watch.depth;
        for (const DirNode* at = watch.attach; at != node.parent; at = at->parent) --depth;
        tree_.matcher.Attach(watch, node.parent, depth);
        watch.unsettled = true;
        any_unsettled_ = true;
    }
}

void RootTracker::Settle() {
    while (any_unsettled_) {
        any_unsettled_ = false;
        for (const auto& watch : tree_.matcher.All()) {
            if (std::exchange(watch->unsettled, false)) Advance(*watch);
        }
    }
}

void RootTracker::LookAgain(bool reconcile) {
    any_unsettled_ = true;
    for (const auto& watch : tree_.matcher.All()) {
        watch->unsettled = true;
        if (!watch->root_present) continue;
        if (watch->root_is_directory) {
            PushWalk(*watch, reconcile ? WalkQueue::kReconcile : WalkQueue::kVerify);
        }
        if (reconcile) {
            router_.AnnounceRoot(*watch,
                                 watch->root_is_directory ? IN_ATTRIB | IN_ISDIR : IN_MODIFY);
        }
    }
}

void RootTracker::Advance(Watch& watch) {
    if (watch.ended) return;
    if (!watch.attached) {
        const bool is_top = watch.request.components.empty();
        tree_.matcher.Attach(watch, is_top ? nullptr : &tree_.index.Root(), 0);
        tree_.EnsureWatched(tree_.index.Root());
    }
    const DirNode* before = watch.attach;
    while (!watch.AtParent()) {
        DirNode* next = StepInto(*watch.attach, watch.NextName());
        if (next == nullptr) break;
        tree_.matcher.Attach(watch, next, watch.depth + 1);
    }
    if (watch.AtParent()) LookForRoot(watch, watch.attach != before);
    watch.started = true;
}

DirNode* RootTracker::StepInto(DirNode& dir, std::string_view name) {
    DirNode* step = dir.dirs.Find(name);
    const bool is_new = step == nullptr;
    if (is_new) {
        const int holder = tree_.opener.Locate(dir);
        struct stat status {};
        const std::string text(name);
        if (holder < 0 || ::fstatat(holder, text.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
            return nullptr;
        }
        const bool is_link = S_ISLNK(status.st_mode);
        if (!is_link && !S_ISDIR(status.st_mode)) return nullptr;
        step = &tree_.index.AddDirectory(dir, name);
        step->Set(DirNode::kThroughLink, is_link);
    }
    // The watch first, then the look for the next part: nothing falls between.
    if (!WatchedTree::IsGone(tree_.EnsureWatched(*step))) return step;
    if (is_new) tree_.RemoveDirectory(*step);
    return nullptr;
}

void RootTracker::LookForRoot(Watch& watch, bool arrived_here) {
    if (watch.attach == nullptr) {
        if (!watch.root_present) RootFound(watch, true);
        return;
    }
    const int holder = tree_.opener.Locate(*watch.attach);
    if (holder < 0) return;
    if (!(watch.root_present && watch.root_is_directory)) tree_.EnsureWatched(*watch.attach);
    struct stat status {};
    const std::string name(watch.NextName());
    const int parent = tree_.opener.Locate(*watch.attach);
    if (::fstatat(parent, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0) {
        if (!watch.root_present) RootFound(watch, S_ISDIR(status.st_mode));
        return;
    }
    // A root that went with its parents is announced again when the parents are back: only now can
    // a receiver put it back.
    if (watch.root_present || (arrived_here && watch.was_present)) {
        router_.AnnounceRoot(watch, watch.root_is_directory ? IN_DELETE | IN_ISDIR : IN_DELETE);
        watch.root_present = false;
        watch.ended = !watch.request.rewatch;
    }
}

void RootTracker::RootFound(Watch& watch, bool is_directory) {
    watch.root_present = true;
    watch.was_present = true;
    watch.root_is_directory = is_directory;
    const bool late = watch.started;
    if (watch.attach != nullptr) {
        if (is_directory) {
            DirNode& root = tree_.PutDirectory(*watch.attach, watch.NextName());
            if (!late && !root.Is(DirNode::kListed)) root.Set(DirNode::kInitial, true);
        } else {
            tree_.PutFile(*watch.attach, watch.NextName());
        }
    }
    if (late) router_.AnnounceRoot(watch, is_directory ? IN_CREATE | IN_ISDIR : IN_CREATE);
    if (is_directory) PushWalk(watch, late ? WalkQueue::kArrived : WalkQueue::kFirst);
}

void RootTracker::PushWalk(Watch& watch, std::uint8_t reasons) {
    if (DirNode* root = RootNode(watch)) tree_.Enqueue(*root, reasons, &watch);
}

DirNode* RootTracker::RootNode(const Watch& watch) const {
    if (watch.request.components.empty()) return &tree_.index.Root();
    return watch.AtParent() ? watch.attach->dirs.Find(watch.NextName()) : nullptr;
}

bool RootTracker::IsNeededAsStep(const DirNode& dir) const {
    const auto& watches = tree_.matcher.All();
    return std::any_of(watches.begin(), watches.end(), [&](const auto& watch) {
        return watch->attach != nullptr && NameIndex::IsWithin(*watch->attach, dir);
    });
}

void RootTracker::Prune() {
    prune_due_ = false;
    if (tree_.matcher.All().empty()) {
        tree_.Clear();
        return;
    }
    std::vector<DirNode*> left{&tree_.index.Root()};
    while (!left.empty()) {
        DirNode* dir = left.back();
        left.pop_back();
        PruneBelow(*dir);
        for (const auto& child : dir->dirs.All()) left.push_back(child.get());
    }
}

void RootTracker::PruneBelow(DirNode& dir) {
    std::vector<DirNode*> unneeded;
    for (const auto& child : dir.dirs.All()) {
        if (!tree_.matcher.IsCovered(dir, child->name) && !IsNeededAsStep(*child)) {
            unneeded.push_back(child.get());
        }
    }
    for (DirNode* child : unneeded) tree_.RemoveDirectory(*child);
    if (tree_.matcher.IsWalked(dir) || !dir.Is(DirNode::kListed)) return;
    // No longer of a tree, only a step on the way to a root.
    tree_.index.ClearFiles(dir);
    dir.Set(DirNode::kListed, false);
    tree_.table.Unwatch(dir);
    tree_.EnsureWatched(dir);
}

}  // namespace Engine::FileNotify
