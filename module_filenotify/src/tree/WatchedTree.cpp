// Owns: the index, the kernel watches, the open directories, the walk queue and the watches.
// Must not own: the reasons for their changes (TreeChanges, RootTracker, TreeWalker).
// Thread: the task's. Ownership passes: never.

#include "tree/WatchedTree.h"

#include <cerrno>
#include <climits>

namespace Engine::FileNotify {

bool WatchedTree::IsGone(int error) {
    return error == ENOENT || error == ENOTDIR || error == ELOOP || error == ESTALE;
}

int WatchedTree::EnsureWatched(DirNode& node, WatchTable::Result& result) {
    const int located =
        NameIndex::PathLength(node) < PATH_MAX ? opener.Locate(node) : -ENAMETOOLONG;
    int error = located < 0 ? -located : 0;
    if (error == 0) error = table.Watch(node, located, matcher.KernelMask(node), result);
    if (error == 0) {
        index.SetUnwatched(node, false);
        unwatched.Remove(node);
    } else if (!IsGone(error)) {
        MarkUnwatched(node, error);
    }
    return error;
}

int WatchedTree::EnsureWatched(DirNode& node) {
    WatchTable::Result ignored{};
    return EnsureWatched(node, ignored);
}

void WatchedTree::MarkUnwatched(DirNode& node, int error) {
    index.SetUnwatched(node, true);
    unwatched.Add(node, error);
}

void WatchedTree::Enqueue(DirNode& node, std::uint8_t reasons, Watch* owner) {
    if (matcher.IsIgnored(node)) {
        LeaveOut(node);
    } else {
        queue.Push(node, reasons, owner);
    }
}

void WatchedTree::LeaveOut(DirNode& node) {
    while (!node.dirs.All().empty()) RemoveDirectory(*node.dirs.All().back());
    table.Unwatch(node);
    queue.Cancel(node);
    opener.Forget(node);
    unwatched.Remove(node);
    index.SetUnwatched(node, false);
    index.ClearFiles(node);
    node.Set(DirNode::kListed, false);
    node.inode = 0;
}

DirNode& WatchedTree::PutDirectory(DirNode& dir, std::string_view name) {
    DirNode* known = dir.dirs.Find(name);
    if (known != nullptr && known->Is(DirNode::kThroughLink)) RemoveDirectory(*known);
    return index.AddDirectory(dir, name);
}

void WatchedTree::PutFile(DirNode& dir, std::string_view name) {
    if (DirNode* known = dir.dirs.Find(name)) {
        if (known->Is(DirNode::kThroughLink)) return;
        RemoveDirectory(*known);
    }
    index.AddFile(dir, name);
}

void WatchedTree::RemoveDirectory(DirNode& node) {
    NotifyDetach(node);
    index.Remove(node, [this](DirNode& removed) {
        table.Unwatch(removed);
        queue.Cancel(removed);
        opener.Forget(removed);
        unwatched.Remove(removed);
    });
}

void WatchedTree::Clear() {
    while (!index.Root().dirs.All().empty()) RemoveDirectory(*index.Root().dirs.All().back());
    DirNode& root = index.Root();
    table.Unwatch(root);
    queue.Cancel(root);
    unwatched.Remove(root);
    index.SetUnwatched(root, false);
    index.ClearFiles(root);
    root.flags = 0;
    opener.Clear();
}

}  // namespace Engine::FileNotify
