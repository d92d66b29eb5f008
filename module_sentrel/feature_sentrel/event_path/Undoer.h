#pragma once

#include <sdk/files/TreeRemoval.h>

#include <memory>
#include <string>
#include <vector>

#include "base/SentrelDirRule.h"
#include "baseline/RuleBaselines.h"
#include "feature_sentrel/event_path/FileChange.h"
#include "feature_sentrel/event_path/RecentRestores.h"
#include "places/RuleAnchors.h"

namespace Engine {

struct ModuleState;

/// The result of undoing one change.
struct UndoResult {
    Outcome outcome = Outcome::kNone;
    /// A directory above the path that was gone and was restored with its content; ends in "/".
    std::string lost_directory = {};
    /// Backup copies that were not used, since they are not what was approved.
    std::vector<RuleBaselines::Fault> copy_faults = {};
};

/// Restores objects from their copies and removes foreign ones, by descriptors. It counts what it
/// did in the module's status. Inotify task's thread.
class Undoer {
  public:
    /// `state` is borrowed.
    explicit Undoer(ModuleState& state) : state_(state) {}

    /// Restores `path` from its copy, a directory with its content. Where a directory on the way is
    /// gone or replaced, restores that one instead. Blocks until it is done.
    UndoResult Restore(const SentrelDirRule& rule, const std::string& path);

    /// Removes what stands at `path`, a directory with its content. Removes nothing behind a link;
    /// removes the link itself where the copy has a directory in its place.
    /// Calls `visit` for what lies in the directory.
    UndoResult Remove(const SentrelDirRule& rule, const std::string& path,
                      const SDK::RemovalVisitor& visit = {});

    /// The object with that inode number was restored lately and still stands there. It has no
    /// other name: it was made without one.
    bool IsOwnObject(const AnchoredRule& rule, ino_t inode) const;

    const RecentRestores& Recent() const { return recent_; }

  private:
    struct Attempt {
        bool restored = false;
        std::string target;
        bool is_above = false;  ///< `target` is a lost directory above the path
        std::string error;
        std::vector<RuleBaselines::Fault> copy_faults = {};
    };

    Attempt TryToRestore(const SentrelDirRule& rule, const std::string& path);
    bool HasGoodCopy(const AnchoredRule& rule, Attempt& attempt);
    UndoResult RemoveBlockingLink(const AnchoredRule& rule, const std::string& path);

    void CountPlantedLink(const std::string& path);

    ModuleState& state_;
    RecentRestores recent_;
};

/// A temporary name of a restore, or the kernel's name for an unnamed file.
bool IsTransientName(const std::string& name);

/// The first path between the protected path and `path` that is missing or no directory, without a
/// trailing "/"; empty when the way is free.
std::string FirstObstacle(const AnchoredRule& rule, const std::string& path);

}  // namespace Engine
