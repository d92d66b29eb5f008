// Owns: the request to prune. Must not own: the directories (WatchedTree), nor the watches that
// need them (WatchMatcher). Thread: the task's. Ownership passes: never.

#include "changes/TreePruner.h"

#include <vector>

namespace Engine::FileNotify {

void TreePruner::PruneIfDue(Time now) {
    if (requested_ && now >= due_) Prune();
}

void TreePruner::Prune() {
    requested_ = false;
    if (tree_.matcher.All().empty()) {
        tree_.Clear();
        return;
    }
    std::vector<DirNode*> left{&tree_.index.Root()};
    while (!left.empty()) {
        DirNode* dir = left.back();
        left.pop_back();
        PruneChildren(*dir);
        for (const auto& child : dir->dirs.All()) left.push_back(child.get());
    }
}

void TreePruner::PruneChildren(DirNode& dir) {
    std::vector<DirNode*> unused;
    for (const auto& child : dir.dirs.All()) {
        if (!tree_.matcher.IsCovered(dir, child->name) && !tree_.matcher.IsOnPathToRoot(*child)) {
            unused.push_back(child.get());
        }
    }
    for (DirNode* child : unused) tree_.RemoveDirectory(*child);
    for (const auto& child : dir.dirs.All()) {
        if (tree_.matcher.IsIgnored(*child)) tree_.LeaveOut(*child);
    }
    if (tree_.matcher.IsWalked(dir) || !dir.Is(DirNode::kListed)) return;
    // It is only needed as part of the path to a root: forget its content and reduce its mask.
    tree_.index.ClearFiles(dir);
    dir.Set(DirNode::kListed, false);
    tree_.table.Unwatch(dir);
    tree_.EnsureWatched(dir);
}

}  // namespace Engine::FileNotify
