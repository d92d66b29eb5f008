#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "changes/TreeChanges.h"
#include "kernel/InotifyReader.h"

namespace Engine::FileNotify {

/// Turns the kernel's records into changes of the tree: brings the halves of a move together, sorts
/// out what only concerns the keeping of watches. Task's thread only.
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
          counters_(counters),
          logger_(logger) {}

    /// Handles at most `limit` of the records that were read; how many it were.
    std::size_t Handle(std::size_t limit);

    /// Has everything walked again if events were lost. While such a walk is under way another
    /// deletion waits for its end: it could not begin anew each time and come to one.
    void Recover();

  private:
    struct HalfMove {
        bool swap = false;  ///< one of two names that have changed places
        NameIndex::Kind replaced = NameIndex::Kind::kNone;
    };

    void HandleRecord(const InotifyRecord& record);
    void HandleAt(DirNode& dir, const InotifyRecord& record);
    bool IsFleeting(const InotifyRecord& record);
    bool EndsSoon(const InotifyRecord& record);
    void AboutDirectoryItself(DirNode& dir, const InotifyRecord& record);
    void MovedFrom(DirNode& dir, const InotifyRecord& record);
    void MovedTo(DirNode& dir, const InotifyRecord& record);
    const InotifyRecord* PartnerOf(const InotifyRecord& from);
    bool CanMove(const DirNode& node, const DirNode& target, std::string_view name) const;
    bool TakeSwap(DirNode& dir, const InotifyRecord& from, DirNode& target,
                  const InotifyRecord& to);
    void Overflow();
    void WatchEnded(int wd);

    InotifyReader& reader_;
    WatchedTree& tree_;
    ChangeRouter& router_;
    TreeChanges& changes_;
    RootTracker& roots_;
    Counters& counters_;
    Poco::Logger* logger_;
    /// Moves whose first half has been taken in for both, by cookie.
    std::unordered_map<std::uint32_t, HalfMove> moves_;
    /// Restore temporaries whose creation was left out, as their end is among the records to come.
    std::vector<std::pair<int, std::string>> fleeting_;
    bool events_lost_ = false;
    InotifyReader::Time next_overflow_log_{};
};

}  // namespace Engine::FileNotify
