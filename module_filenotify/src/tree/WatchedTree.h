#pragma once

#include <functional>
#include <string_view>

#include "index/NameIndex.h"
#include "tree/DirOpener.h"
#include "tree/UnwatchedList.h"
#include "tree/WalkQueue.h"
#include "tree/WatchMatcher.h"
#include "tree/WatchReserve.h"
#include "tree/WatchTable.h"

namespace Engine::FileNotify {

/// The known directories with everything that hangs on them, and the operations that must keep
/// these together. Task's thread only.
class WatchedTree {
  public:
    WatchedTree(InotifyDescriptor& descriptor, Poco::Logger* logger, Counters& counters)
        : table(descriptor),
          unwatched(logger, counters),
          reserve(table, matcher, logger, counters) {}

    /// Called before a directory with all below it is forgotten or moved.
    void SetGoing(NameIndex::Visitor going) { going_ = std::move(going); }
    void Going(DirNode& node) { going_(node); }

    /// Puts the kernel watch on `node` that it should have. 0 when it has it. Otherwise errno; the
    /// node then stands in the list of unwatched ones, unless IsGone(errno). What no path can reach
    /// is not watched: ENAMETOOLONG. When there are no more watches (ENOSPC), one of a directory
    /// that gives way ends for it; a node that gives way itself then stands in the reserve's list.
    int EnsureWatched(DirNode& node, WatchTable::Result& result);
    int EnsureWatched(DirNode& node);

    /// The directory is not there any more, or something else is in its place: no failure to
    /// watch.
    static bool IsGone(int error);

    void MarkUnwatched(DirNode& node, int error);

    /// Has `node` visited; what gives way after everything else.
    void Enqueue(DirNode& node, std::uint8_t reasons, Watch* owner) {
        queue.Push(node, reasons, owner, matcher.GivesWay(node));
    }

    /// Makes `name` known as that kind; what was known under the name as the other kind is removed.
    DirNode& PutDirectory(DirNode& dir, std::string_view name);
    void PutFile(DirNode& dir, std::string_view name);

    void RemoveDirectory(DirNode& node);
    void Clear();

    NameIndex index;
    WatchTable table;
    WatchMatcher matcher;
    DirOpener opener;
    WalkQueue queue;
    UnwatchedList unwatched;
    WatchReserve reserve;

  private:
    int Watch(DirNode& node, int located, WatchTable::Result& result);

    NameIndex::Visitor going_ = [](DirNode&) {};
};

}  // namespace Engine::FileNotify
