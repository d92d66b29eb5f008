// Owns: a few open directories. Not: the nodes; who removes one tells Forget.
// A kept descriptor stays right when its directory is renamed, and so does the node. When a name
// stands for another directory by now, the event that says so is on its way and removes the node.
// Thread: the task's.

#include "DirOpener.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <utility>
#include <vector>

namespace Engine::FileNotify {

int DirOpener::Locate(const DirNode& node) {
    std::vector<const DirNode*> steps;
    int fd = -1;
    for (const DirNode* at = &node; at != nullptr && fd < 0; at = at->parent) {
        fd = FindOpen(*at);
        if (fd < 0) steps.push_back(at);
    }
    for (auto step = steps.rbegin(); step != steps.rend(); ++step) {
        const DirNode& next = **step;
        const int follow = next.Is(DirNode::kThroughLink) ? 0 : O_NOFOLLOW;
        const bool is_root = next.parent == nullptr;
        const int opened = ::openat(is_root ? AT_FDCWD : fd, is_root ? "/" : next.name.c_str(),
                                    O_PATH | O_DIRECTORY | O_CLOEXEC | follow);
        if (opened < 0) return -errno;
        Keep(next, SDK::FileDescriptor(opened));
        fd = opened;
    }
    return fd;
}

SDK::FileDescriptor DirOpener::OpenForReading(int located_fd) {
    return SDK::FileDescriptor(
        ::openat(located_fd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NONBLOCK));
}

void DirOpener::Forget(const DirNode& node) {
    open_.erase(std::remove_if(open_.begin(), open_.end(),
                               [&](const Entry& entry) { return entry.node == &node; }),
                open_.end());
}

int DirOpener::FindOpen(const DirNode& node) const {
    for (auto entry = open_.rbegin(); entry != open_.rend(); ++entry) {
        if (entry->node == &node) return entry->fd.Get();
    }
    return -1;
}

void DirOpener::Keep(const DirNode& node, SDK::FileDescriptor fd) {
    if (open_.size() >= kKeptOpen) open_.pop_front();
    open_.push_back({&node, std::move(fd)});
}

}  // namespace Engine::FileNotify
