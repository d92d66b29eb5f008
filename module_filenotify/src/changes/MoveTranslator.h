#pragma once

#include <cstdint>
#include <string_view>
#include <unordered_map>

#include "changes/TreeChanges.h"
#include "kernel/InotifyReader.h"

namespace Engine::FileNotify {

/// Pairs the two records of a move and applies the move to the tree. Recognises two names that were
/// exchanged (renameat2 with RENAME_EXCHANGE). Owned by EventTranslator. Not thread-safe.
class MoveTranslator {
  public:
    MoveTranslator(InotifyReader& reader, WatchedTree& tree, ChangeRouter& router,
                   TreeChanges& changes, RootTracker& roots)
        : reader_(reader), tree_(tree), router_(router), changes_(changes), roots_(roots) {}

    /// Handles `record`, the reader's first one, for the directory `dir` of its watch. MovedFrom
    /// may read further records.
    void MovedFrom(DirNode& dir, const InotifyRecord& record);
    void MovedTo(DirNode& dir, const InotifyRecord& record);

    /// Forgets half-done moves. Call when no read record is left.
    void Clear() { moves_.clear(); }

  private:
    struct HalfMove {
        bool swap = false;  ///< the two names were exchanged
        NameIndex::Kind replaced = NameIndex::Kind::kNone;
    };

    const InotifyRecord* PartnerOf(const InotifyRecord& from);
    bool CanMove(const DirNode& node, const DirNode& target, std::string_view name) const;
    bool ApplySwap(DirNode& dir, const InotifyRecord& from, DirNode& target,
                   const InotifyRecord& to);
    static bool IsWayBack(const InotifyRecord& from, const InotifyRecord& to,
                          const InotifyRecord& back_from, const InotifyRecord& back_to);
    bool ExchangeDirectories(DirNode* one, DirNode* other);

    InotifyReader& reader_;
    WatchedTree& tree_;
    ChangeRouter& router_;
    TreeChanges& changes_;
    RootTracker& roots_;
    /// Moves that MovedFrom applied in full, by cookie, until their second record.
    std::unordered_map<std::uint32_t, HalfMove> moves_;
};

}  // namespace Engine::FileNotify
