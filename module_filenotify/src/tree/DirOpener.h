#pragma once

#include <sdk/files/FileDescriptor.h>

#include <deque>
#include <memory>

#include "index/DirNode.h"

namespace Engine::FileNotify {

/// Opens directories step by step from their parents, so that no link is followed on the way
/// (links above a root, which are DirNode::kThroughLink, excepted) and no path is too long. Keeps
/// the last ones open, as a walk opens one child after another. Task's thread only.
class DirOpener {
  public:
    /// A descriptor of that directory to look names up in, or -errno: ENOENT, ENOTDIR or ELOOP when
    /// it is no longer there as a directory, ESTALE when its name, or one on the way to it, stands
    /// for another directory by now. Learns which directory a node is that has not been opened yet.
    /// Borrowed: valid until the next call.
    int Locate(DirNode& node);

    /// The same, kept open for as long as it is held; null when it is not there or cannot be
    /// opened.
    std::shared_ptr<const SDK::FileDescriptor> Share(DirNode& node);

    /// Takes over a descriptor of that directory, for what lies in it.
    void Keep(const DirNode& node, SDK::FileDescriptor fd);

    /// The same directory opened to be read; -1 with errno.
    static SDK::FileDescriptor OpenForReading(int located_fd);

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
