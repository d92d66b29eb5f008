#pragma once

#include <Poco/Logger.h>

#include <cstddef>

#include "changes/MoveTranslator.h"
#include "changes/RestoreEchoFilter.h"

namespace Engine::FileNotify {

/// Applies the kernel's records to the tree and answers lost events. Owned by NotifyCore. Not
/// thread-safe.
class EventTranslator {
  public:
    EventTranslator(InotifyReader& reader, WatchedTree& tree, ChangeRouter& router,
                    TreeChanges& changes, RootTracker& roots, Counters& counters,
                    Poco::Logger* logger)
        : reader_(reader),
          tree_(tree),
          router_(router),
          changes_(changes),
          roots_(roots),
          moves_(reader, tree, router, changes, roots),
          restore_echoes_(reader),
          counters_(counters),
          logger_(logger) {}

    /// Handles at most `limit` read records. Returns how many it handled.
    std::size_t Handle(std::size_t limit);

    /// Queues a walk of everything when events were lost. A second loss during that walk waits for
    /// its end; otherwise frequent losses would restart the walk for ever.
    void Recover();

  private:
    void HandleRecord(const InotifyRecord& record);
    void HandleAt(DirNode& dir, const InotifyRecord& record);
    void HandleSelf(DirNode& dir, const InotifyRecord& record);
    void OnOverflow();
    void OnWatchEnded(int wd);

    InotifyReader& reader_;
    WatchedTree& tree_;
    ChangeRouter& router_;
    TreeChanges& changes_;
    RootTracker& roots_;
    MoveTranslator moves_;
    RestoreEchoFilter restore_echoes_;
    Counters& counters_;
    Poco::Logger* logger_;
    bool events_lost_ = false;
    InotifyReader::Time next_overflow_log_{};
};

}  // namespace Engine::FileNotify
