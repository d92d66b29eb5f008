#pragma once

#include <sdk/files/FileDescriptor.h>

#include <deque>
#include <memory>

#include "index/DirNode.h"

namespace Engine::FileNotify {

/// Opens directories step by step from their parents, so that no path is too long and no link is
/// followed except DirNode::kThroughLink. Keeps the last ones open for the next children. Owned by
/// WatchedTree. Not thread-safe.
class DirOpener {
  public:
    /// Returns an O_PATH descriptor, or -errno: ENOENT, ENOTDIR or ELOOP when it is no longer a
    /// directory; ESTALE when a name on the path belongs to another directory by now. Sets unknown
    /// inodes of nodes. The descriptor is borrowed and valid until the next call.
    int Locate(DirNode& node);

    /// Like Locate, but the descriptor stays open while the caller holds it. Null on failure.
    std::shared_ptr<const SDK::FileDescriptor> Share(DirNode& node);

    /// Takes ownership of a descriptor of that directory.
    void Keep(const DirNode& node, SDK::FileDescriptor fd);

    /// Opens the directory of a Locate result for reading. On failure not open, with errno set.
    static SDK::FileDescriptor OpenForReading(int located_fd);

    /// Closes the directory. Required before its node is removed, and after it is moved.
    void Forget(const DirNode& node);
    void Clear() { open_.clear(); }

  private:
    static constexpr std::size_t kKeptOpen = 64;

    struct Entry {
        const DirNode* node;
        std::shared_ptr<const SDK::FileDescriptor> fd;
    };

    static int OpenStep(DirNode& node, int parent_fd);
    const Entry* FindOpen(const DirNode& node) const;

    std::deque<Entry> open_;
};

}  // namespace Engine::FileNotify
