#pragma once

#include <cstddef>
#include <cstdint>
#include <unordered_map>
#include <vector>

#include "index/DirNode.h"

namespace Engine::FileNotify {

class InotifyDescriptor;

/// Which kernel watch stands for which directory.
///
/// Mostly one for one. The kernel gives one watch per directory however it is reached, so a bind
/// mount, or a move seen by a walk before its event was read, gives two nodes of one watch: events
/// then belong to both, and the kernel watch ends with the last. Task's thread only.
class WatchTable {
  public:
    explicit WatchTable(InotifyDescriptor& descriptor) : descriptor_(descriptor) {}

    enum class Result { kKept, kNew, kReplaced };

    /// Watches `node`, open on `dir_fd`, for `mask`. 0, or the errno of what failed; the node's
    /// earlier watch, if any, then stays. `result`: the same directory as before, the first watch,
    /// or another directory than the one that was watched as this node until now.
    int Watch(DirNode& node, int dir_fd, std::uint32_t mask, Result& result);

    /// Takes in a watch that the kernel has given for `node`, which has none here.
    void Add(DirNode& node, int wd, std::uint32_t mask);

    void Unwatch(DirNode& node);

    /// The kernel has ended the watch: the nodes that lost it.
    std::vector<DirNode*> Forget(int wd);

    /// The directory that events of `wd` belong to; null when the watch has been taken off.
    DirNode* FirstNodeOf(int wd) const;
    /// The others they belong to; mostly none.
    std::vector<DirNode*> FurtherNodesOf(int wd) const;
    bool IsNodeOf(int wd, const DirNode* node) const;

    /// Calls `each(wd, node)` for the first node of each watch until it returns false. The table
    /// must not be changed meanwhile.
    template <typename Each>
    void ForEach(Each&& each) const {
        for (const auto& [wd, node] : nodes_) {
            if (!each(wd, *node)) return;
        }
    }

    std::size_t Size() const { return nodes_.size(); }
    void Clear();

  private:
    bool Unlink(DirNode& node);

    InotifyDescriptor& descriptor_;
    std::unordered_map<int, DirNode*> nodes_;
    std::unordered_multimap<int, DirNode*> further_nodes_;
};

}  // namespace Engine::FileNotify
