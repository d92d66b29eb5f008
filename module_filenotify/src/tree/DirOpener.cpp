// Owns: the descriptors of the last kKeptOpen directories.
// Must not own: the nodes (NameIndex); their removal must be followed by Forget.
// Thread: the task's. Ownership passes: Share hands out shared descriptors.
//
// While events are unread, a name may belong to another directory than its node. So each opened
// directory is compared with the node's inode. A kept descriptor follows its directory.

#include "tree/DirOpener.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <utility>
#include <vector>

namespace Engine::FileNotify {

int DirOpener::Locate(DirNode& node) {
    if (const Entry* open = FindOpen(node)) return open->fd->Get();
    std::vector<DirNode*> steps;
    int fd = -1;
    for (DirNode* at = &node; at != nullptr; at = at->parent) {
        if (const Entry* open = FindOpen(*at)) {
            fd = open->fd->Get();
            break;
        }
        steps.push_back(at);
    }
    for (auto step = steps.rbegin(); step != steps.rend(); ++step) {
        fd = OpenStep(**step, fd);
        if (fd < 0) return fd;
        Keep(**step, SDK::FileDescriptor(fd));
    }
    return fd;
}

std::shared_ptr<const SDK::FileDescriptor> DirOpener::Share(DirNode& node) {
    if (Locate(node) < 0) return nullptr;
    return FindOpen(node)->fd;
}

int DirOpener::OpenStep(DirNode& node, int parent_fd) {
    const bool is_root = node.parent == nullptr;
    const bool is_link = node.Is(DirNode::kThroughLink);
    SDK::FileDescriptor fd(::openat(is_root ? AT_FDCWD : parent_fd,
                                    is_root ? "/" : node.name.c_str(),
                                    O_PATH | O_DIRECTORY | O_CLOEXEC | (is_link ? 0 : O_NOFOLLOW)));
    struct stat status {};
    if (!fd.IsOpen() || ::fstat(fd.Get(), &status) != 0) return -errno;
    if (node.inode == 0 || is_link) node.inode = status.st_ino;
    return node.inode == status.st_ino ? fd.Release() : -ESTALE;
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

const DirOpener::Entry* DirOpener::FindOpen(const DirNode& node) const {
    const auto entry = std::find_if(open_.rbegin(), open_.rend(),
                                    [&](const Entry& one) { return one.node == &node; });
    return entry == open_.rend() ? nullptr : &*entry;
}

void DirOpener::Keep(const DirNode& node, SDK::FileDescriptor fd) {
    if (open_.size() >= kKeptOpen) open_.pop_front();
    open_.push_back({&node, std::make_shared<const SDK::FileDescriptor>(std::move(fd))});
}

}  // namespace Engine::FileNotify
