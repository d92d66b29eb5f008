#pragma once

#include <functional>
#include <string_view>

#include "index/NameIndex.h"
#include "tree/DirOpener.h"
#include "tree/UnwatchedList.h"
#include "tree/WalkQueue.h"
#include "tree/WatchMatcher.h"
#include "tree/WatchTable.h"

namespace Engine::FileNotify {

/// The known directories with their watches, queued walks and open descriptors, and the operations
/// that keep these consistent. Owned by NotifyCore. Not thread-safe.
class WatchedTree {
  public:
    WatchedTree(InotifyDescriptor& descriptor, Poco::Logger* logger, Counters& counters)
        : table(descriptor), unwatched(logger, counters) {}

    /// `handler` is called before a directory is removed or moved with its subtree.
    void SetDetachHandler(NameIndex::Visitor handler) { detach_handler_ = std::move(handler); }
    /// Calls the handler. Required before index.Move and index.Exchange.
    void NotifyDetach(DirNode& node) { detach_handler_(node); }

    /// Sets the kernel watch that `node` needs. Returns 0, or errno. ENAMETOOLONG: its path exceeds
    /// PATH_MAX. ENOSPC: no kernel watch was left. On failure the node is listed in `unwatched`,
    /// unless IsGone(errno).
    int EnsureWatched(DirNode& node, WatchTable::Result& result);
    int EnsureWatched(DirNode& node);

    /// True when the errno means that the directory is gone or replaced.
    static bool IsGone(int error);

    void MarkUnwatched(DirNode& node, int error);

    /// Queues a visit of `node`; leaves it out where all receivers ignore its content.
    void Enqueue(DirNode& node, std::uint8_t reasons, Watch* owner);
    /// Forgets the content of `node` with all watches and visits; its name stays known.
    void LeaveOut(DirNode& node);

    /// Adds `name` to the index. Removes a known object of that name and another kind.
    DirNode& PutDirectory(DirNode& dir, std::string_view name);
    void PutFile(DirNode& dir, std::string_view name);

    /// Removes the directory with its subtree, watches and queued visits.
    void RemoveDirectory(DirNode& node);
    /// Removes everything except the root node.
    void Clear();

    NameIndex index;
    WatchTable table;
    WatchMatcher matcher;
    DirOpener opener;
    WalkQueue queue;
    UnwatchedList unwatched;

  private:
    NameIndex::Visitor detach_handler_ = [](DirNode&) {};
};

}  // namespace Engine::FileNotify
