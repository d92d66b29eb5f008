// Owns: only a flag. Must not own: the watches (WatchMatcher), nor the content of a root
// (TreeWalker). Thread: the task's. Ownership passes: Start hands each new watch to WatchMatcher.

#include "changes/RootTracker.h"

#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/stat.h>

#include <memory>
#include <utility>

#include "requests/WatchRequestQueue.h"

namespace Engine::FileNotify {

namespace {

std::uint32_t MaskOf(const Watch& watch, std::uint32_t mask) {
    return watch.root_is_directory ? mask | IN_ISDIR : mask;
}

}  // namespace

RootTracker::RootTracker(WatchedTree& tree, ChangeRouter& router, TreePruner& pruner)
    : tree_(tree), router_(router), pruner_(pruner) {
    tree_.SetDetachHandler([this](DirNode& node) { DetachFrom(node); });
}

void RootTracker::Start(const WatchRequest& request) {
    if (Watch* known = tree_.matcher.Find(request.subscription.get())) {
        known->request = request;
        known->ended = false;
        known->unresolved = true;
        pruner_.Request();
        if (known->root_present) EnqueueWalk(*known, WalkQueue::kFirst);
    } else {
        auto watch = std::make_unique<Watch>();
        watch->request = request;
        tree_.matcher.Add(std::move(watch));
    }
    any_unresolved_ = true;
}

void RootTracker::Stop(const Subscription* subscription) {
    Watch* watch = tree_.matcher.Find(subscription);
    if (watch == nullptr) return;
    tree_.queue.Disown(*watch);
    tree_.matcher.Remove(*watch);
    pruner_.Request();
}

void RootTracker::NameAppeared(const DirNode& dir, std::string_view name, bool is_directory) {
    for (Watch* watch : tree_.matcher.AttachedFor(&dir, name)) {
        if (!watch->AtParent()) {
            watch->unresolved = true;
            any_unresolved_ = true;
            continue;
        }
        watch->root_present = true;
        watch->was_present = true;
        watch->root_is_directory = is_directory;
        if (!is_directory) tree_.EnsureWatched(*watch->attach);
    }
}

void RootTracker::NameGone(const DirNode& dir, std::string_view name) {
    for (Watch* watch : tree_.matcher.AttachedFor(&dir, name)) {
        if (watch->AtParent() && watch->root_present) LoseRoot(*watch);
    }
}

void RootTracker::LoseRoot(Watch& watch) {
    watch.root_present = false;
    watch.ended = !watch.request.rewatch;
}

void RootTracker::DetachFrom(DirNode& node) {
    for (const auto& owned : tree_.matcher.All()) {
        Watch& watch = *owned;
        if (watch.attach == nullptr || !NameIndex::IsWithin(*watch.attach, node)) continue;
        if (watch.AtParent() && watch.root_present) {
            router_.AnnounceRoot(watch, MaskOf(watch, IN_DELETE));
            LoseRoot(watch);
        }
        std::size_t depth = watch.depth;
        for (const DirNode* at = watch.attach; at != node.parent; at = at->parent) --depth;
        tree_.matcher.Attach(watch, node.parent, depth);
        watch.unresolved = true;
        any_unresolved_ = true;
    }
}

void RootTracker::ResolveChanged() {
    while (any_unresolved_) {
        any_unresolved_ = false;
        for (const auto& watch : tree_.matcher.All()) {
            if (std::exchange(watch->unresolved, false)) Resolve(*watch);
        }
    }
}

void RootTracker::ResolveAll(bool reconcile) {
    any_unresolved_ = true;
    for (const auto& watch : tree_.matcher.All()) {
        watch->unresolved = true;
        if (!watch->root_present) continue;
        if (watch->root_is_directory) {
            EnqueueWalk(*watch, reconcile ? WalkQueue::kReconcile : WalkQueue::kVerify);
        }
        if (reconcile) {
            router_.AnnounceRoot(*watch,
                                 watch->root_is_directory ? IN_ATTRIB | IN_ISDIR : IN_MODIFY);
        }
    }
}

void RootTracker::Resolve(Watch& watch) {
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
    if (watch.AtParent()) CheckRoot(watch, watch.attach != before);
    watch.started = true;
}

DirNode* RootTracker::StepInto(DirNode& dir, std::string_view name) {
    DirNode* step = dir.dirs.Find(name);
    const bool is_new = step == nullptr;
    if (is_new) step = AddStep(dir, name);
    if (step == nullptr) return nullptr;
    // The watch precedes the search for the next component, so that no event is missed.
    if (!WatchedTree::IsGone(tree_.EnsureWatched(*step))) return step;
    if (is_new) tree_.RemoveDirectory(*step);
    return nullptr;
}

DirNode* RootTracker::AddStep(DirNode& dir, std::string_view name) {
    const int holder = tree_.opener.Locate(dir);
    struct stat status {};
    const std::string text(name);
    if (holder < 0 || ::fstatat(holder, text.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
        return nullptr;
    }
    const bool is_link = S_ISLNK(status.st_mode);
    if (!is_link && !S_ISDIR(status.st_mode)) return nullptr;
    DirNode& step = tree_.index.AddDirectory(dir, name);
    step.Set(DirNode::kThroughLink, is_link);
    return &step;
}

void RootTracker::CheckRoot(Watch& watch, bool parent_is_new) {
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
    // After the parents of a root disappeared with it and came back, the deletion is announced
    // again: only now can a receiver restore the root.
    if (watch.root_present || (parent_is_new && watch.was_present)) {
        router_.AnnounceRoot(watch, MaskOf(watch, IN_DELETE));
        LoseRoot(watch);
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
    if (late) router_.AnnounceRoot(watch, MaskOf(watch, IN_CREATE));
    if (is_directory) EnqueueWalk(watch, late ? WalkQueue::kArrived : WalkQueue::kFirst);
}

void RootTracker::EnqueueWalk(Watch& watch, std::uint8_t reasons) {
    if (DirNode* root = RootNode(watch)) tree_.Enqueue(*root, reasons, &watch);
}

DirNode* RootTracker::RootNode(const Watch& watch) const {
    if (watch.request.components.empty()) return &tree_.index.Root();
    return watch.AtParent() ? watch.attach->dirs.Find(watch.NextName()) : nullptr;
}

std::optional<std::size_t> RootTracker::NamesBelow(const Subscription& subscription,
                                                   const std::string& path) const {
    const Watch* watch = tree_.matcher.Find(&subscription);
    if (watch == nullptr || !watch->root_present || !watch->request.report_directories ||
        (watch->request.mask & IN_ATTRIB) == 0) {
        return std::nullopt;
    }
    const DirNode* node = RootNode(*watch);
    for (const std::string& name : WatchRequestQueue::Split(path.substr(watch->Id().size()))) {
        if (node == nullptr) break;
        node = node->dirs.Find(name);
    }
    if (node == nullptr) return std::nullopt;
    return std::size_t{node->totals.directories} + node->totals.files;
}

}  // namespace Engine::FileNotify
