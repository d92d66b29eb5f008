#pragma once

#include <cstdint>
#include <string_view>

#include "changes/ChangeRouter.h"
#include "changes/RecentFileTypes.h"
#include "changes/RootTracker.h"
#include "tree/WatchedTree.h"

namespace Engine::FileNotify {

/// Takes changes of names into the index and announces them; the same whether the kernel told them
/// or a walk found them. Task's thread only.
class TreeChanges {
  public:
    TreeChanges(WatchedTree& tree, ChangeRouter& router, RootTracker& roots)
        : tree_(tree), router_(router), roots_(roots) {}

    /// How a directory that appears is visited, and for whom; 0: it is not.
    struct Visit {
        std::uint8_t reasons = 0;
        Watch* owner = nullptr;
        bool initial = false;
        bool may_be_another = false;  ///< than the directory that is known under the name
    };

    /// `mask` 0: learnt without being announced.
    void Appeared(DirNode& dir, std::string_view name, bool is_directory, std::uint32_t mask,
                  const Visit& visit);

    /// Tells of the name being gone. The index follows unless it knows the name as the other kind
    /// by now: the event is then older than what a walk has seen.
    void Gone(DirNode& dir, std::string_view name, bool is_directory, std::uint32_t mask,
              ObjectRef moved_to = {});

    /// The directory `node` becomes `name` in `target`. Its own announcement is made here (as of
    /// `mask`, IN_MOVED_FROM); the one of the new name by MovedHere.
    void Move(DirNode& node, DirNode& target, std::string_view name, std::uint32_t mask);

    /// Second half of a move whose first half was taken in by Move. `replaced` is what the new
    /// name stood for before.
    void MovedHere(DirNode& dir, std::string_view name, std::uint32_t mask,
                   NameIndex::Kind replaced);

    /// Takes `name` for new if there is something of that name now.
    void Recheck(DirNode& dir, std::string_view name);

    /// Two directories have changed places; nothing is announced.
    void Exchange(DirNode& one, DirNode& other);

  private:
    bool IsNeededNow(const DirNode& node, bool gave_way) const;
    bool HasNewReader(const DirNode& from, std::string_view name, const DirNode& to,
                      std::string_view new_name) const;

    WatchedTree& tree_;
    ChangeRouter& router_;
    RootTracker& roots_;
    RecentFileTypes memory_;
};

}  // namespace Engine::FileNotify
