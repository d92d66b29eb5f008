// Owns: the kernel watches, until the descriptor is closed. Must not own: the nodes (NameIndex).
// Thread: the task's. Ownership passes: Add takes over watches that InitialScan placed.

#include "tree/WatchTable.h"

#include <algorithm>

#include "kernel/InotifyDescriptor.h"

namespace Engine::FileNotify {

int WatchTable::Watch(DirNode& node, int dir_fd, std::uint32_t mask, Result& result) {
    const int wd = descriptor_.Add(dir_fd, mask);
    if (wd < 0) return -wd;
    result = Result::kKept;
    if (node.wd == wd) {
        node.mask |= mask;
        return 0;
    }
    result = node.wd >= 0 ? Result::kReplaced : Result::kNew;
    Unwatch(node);
    Add(node, wd, mask);
    return 0;
}

void WatchTable::Add(DirNode& node, int wd, std::uint32_t mask) {
    if (!nodes_.emplace(wd, &node).second) further_nodes_.emplace(wd, &node);
    node.wd = wd;
    node.mask = mask;
}

void WatchTable::Unwatch(DirNode& node) {
    const int wd = node.wd;
    if (wd < 0) return;
    if (Unlink(node)) descriptor_.Remove(wd);
}

bool WatchTable::Unlink(DirNode& node) {
    const int wd = node.wd;
    node.wd = -1;
    node.mask = 0;
    const auto range = further_nodes_.equal_range(wd);
    for (auto it = range.first; it != range.second; ++it) {
        if (it->second == &node) {
            further_nodes_.erase(it);
            return false;
        }
    }
    if (range.first == range.second) {
        nodes_.erase(wd);
        return true;
    }
    nodes_[wd] = range.first->second;
    further_nodes_.erase(range.first);
    return false;
}

std::vector<DirNode*> WatchTable::Forget(int wd) {
    std::vector<DirNode*> nodes = FurtherNodesOf(wd);
    if (DirNode* first = FirstNodeOf(wd)) nodes.push_back(first);
    for (DirNode* node : nodes) {
        node->wd = -1;
        node->mask = 0;
        node->inode = 0;
    }
    nodes_.erase(wd);
    further_nodes_.erase(wd);
    return nodes;
}

DirNode* WatchTable::FirstNodeOf(int wd) const {
    const auto it = nodes_.find(wd);
    return it == nodes_.end() ? nullptr : it->second;
}

std::vector<DirNode*> WatchTable::FurtherNodesOf(int wd) const {
    std::vector<DirNode*> nodes;
    if (further_nodes_.empty()) return nodes;
    const auto range = further_nodes_.equal_range(wd);
    for (auto it = range.first; it != range.second; ++it) nodes.push_back(it->second);
    return nodes;
}

bool WatchTable::IsNodeOf(int wd, const DirNode* node) const {
    const std::vector<DirNode*> further = FurtherNodesOf(wd);
    return FirstNodeOf(wd) == node ||
           std::find(further.begin(), further.end(), node) != further.end();
}

void WatchTable::Clear() {
    nodes_.clear();
    further_nodes_.clear();
}

}  // namespace Engine::FileNotify
