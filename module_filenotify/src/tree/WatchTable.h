#pragma once

#include <cstddef>
#include <cstdint>
#include <unordered_map>
#include <vector>

#include "index/DirNode.h"

namespace Engine::FileNotify {

class InotifyDescriptor;

/// Maps kernel watches to directories. Owned by WatchedTree. Not thread-safe.
///
/// Usually one to one. The kernel has one watch per directory, so two nodes share it after a bind
/// mount, or when a walk sees a move before its event. Events then belong to both; the kernel watch
/// ends with the last node.
class WatchTable {
  public:
    explicit WatchTable(InotifyDescriptor& descriptor) : descriptor_(descriptor) {}

    /// Whether the node had this watch, had none, or had that of another directory.
    enum class Result { kKept, kNew, kReplaced };

    /// Watches `node`, open on `dir_fd`, for `mask`. Returns 0 and sets `result`, or returns errno
    /// and leaves an earlier watch of the node in place.
    int Watch(DirNode& node, int dir_fd, std::uint32_t mask, Result& result);

    /// Takes over the kernel watch `wd` of `node`, which must have none in this table.
    void Add(DirNode& node, int wd, std::uint32_t mask);

    /// Ends the node's watch. A node without a watch is not an error.
    void Unwatch(DirNode& node);

    /// Removes a watch that the kernel has ended. Returns the nodes that lost it.
    std::vector<DirNode*> Forget(int wd);

    /// The first node of the watch; null when the watch is unknown.
    DirNode* FirstNodeOf(int wd) const;
    /// The other nodes of the watch; usually none.
    std::vector<DirNode*> FurtherNodesOf(int wd) const;
    bool IsNodeOf(int wd, const DirNode* node) const;

    /// Calls `each(wd, node)` for the first node of each watch until it returns false. `each` must
    /// not change the table.
    template <typename Each>
    void ForEach(Each&& each) const {
        for (const auto& [wd, node] : nodes_) {
            if (!each(wd, *node)) return;
        }
    }

    std::size_t Size() const { return nodes_.size(); }
    /// Forgets all watches without ending them.
    void Clear();

  private:
    bool Unlink(DirNode& node);

    InotifyDescriptor& descriptor_;
    std::unordered_map<int, DirNode*> nodes_;
    std::unordered_multimap<int, DirNode*> further_nodes_;
};

}  // namespace Engine::FileNotify
