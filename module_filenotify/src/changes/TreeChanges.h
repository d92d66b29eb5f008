#pragma once

#include <cstdint>
#include <string_view>

#include "changes/ChangeRouter.h"
#include "changes/RecentFileTypes.h"
#include "changes/RootTracker.h"
#include "tree/WatchedTree.h"

namespace Engine::FileNotify {

/// Applies changes of names to the tree and announces them, for events and for walks. Owned by
/// NotifyCore. Not thread-safe.
class TreeChanges {
  public:
    TreeChanges(WatchedTree& tree, ChangeRouter& router, RootTracker& roots)
        : tree_(tree), router_(router), roots_(roots) {}

    /// How to visit a directory that appears. No reasons: it is not visited.
    struct Visit {
        std::uint8_t reasons = 0;
        Watch* owner = nullptr;
        bool initial = false;
        bool may_be_another = false;  ///< the known directory of that name may be another one
    };

    /// The name exists. `mask`: of the announcement; 0: only update the index.
    void Appeared(DirNode& dir, std::string_view name, bool is_directory, std::uint32_t mask,
                  const Visit& visit);

    /// The name disappeared. Announces it. Keeps the index when it has the name as another kind of
    /// object: a walk has then seen a later state than the event.
    void Gone(DirNode& dir, std::string_view name, bool is_directory, std::uint32_t mask,
              ObjectRef moved_to = {});

    /// First half of a move: `node` becomes `name` in `target`. Announces the old name with `mask`;
    /// MovedHere announces the new one.
    void Move(DirNode& node, DirNode& target, std::string_view name, std::uint32_t mask);

    /// Second half of a move that Move applied. `replaced`: what the new name was before.
    void MovedHere(DirNode& dir, std::string_view name, std::uint32_t mask,
                   NameIndex::Kind replaced);

    /// Announces the arrival of `name` when such an object exists. Blocks on a disk read.
    void Recheck(DirNode& dir, std::string_view name);

    /// Exchanges two directories without announcing it.
    void Exchange(DirNode& one, DirNode& other);

  private:
    void StepAppeared(DirNode& dir, std::string_view name, bool is_directory);
    void PutDirectory(DirNode& dir, std::string_view name, NameIndex::Kind before,
                      const Visit& visit);
    bool HasNewWatch(const DirNode& from, std::string_view name, const DirNode& to,
                     std::string_view new_name) const;

    WatchedTree& tree_;
    ChangeRouter& router_;
    RootTracker& roots_;
    RecentFileTypes memory_;
};

}  // namespace Engine::FileNotify
