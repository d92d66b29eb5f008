#pragma once

#include <memory>
#include <string>

#include "base/SentrelDirRule.h"
#include "feature_sentrel/event_path/FileChange.h"
#include "feature_sentrel/event_path/RecentRestores.h"
#include "places/RuleAnchors.h"

namespace Engine {

struct ModuleState;

/// What undoing one change came to.
struct UndoResult {
    Outcome outcome = Outcome::kNone;
    /// A directory above the path that had gone, and was restored with all that it held; ends in
    /// "/".
    std::string lost_directory = {};
};

/// Puts objects back from their copies and removes foreign ones, by descriptors. It notes what it
/// did in the module's status. Inotify task's thread.
class Undoer {
  public:
    /// `state` is borrowed.
    explicit Undoer(ModuleState& state) : state_(state) {}

    /// Puts back what the copy has at `path`; a directory with all that it holds, and where a
    /// directory on the way is gone or replaced, that one. Blocks until it is done.
    UndoResult Restore(const SentrelDirRule& rule, const std::string& path);

    /// Removes what stands at `path`, a directory with all that it holds. Behind a link nothing is
    /// removed; where the copy has a directory in place of the link, the link goes.
    UndoResult Remove(const SentrelDirRule& rule, const std::string& path);

    /// The object with that number was put back here lately and still stands there. Nobody else
    /// holds it under another name: before it got its own it had none.
    bool IsOwnObject(const AnchoredRule& rule, ino_t inode) const;

    const RecentRestores& Recent() const { return recent_; }

  private:
    struct Attempt {
        bool restored = false;
        std::string target;
        bool is_above = false;  ///< `target` had gone and holds the path
        std::string error;
    };

    Attempt TryToRestore(const SentrelDirRule& rule, const std::string& path);
    UndoResult RemoveBlockingLink(const AnchoredRule& rule, const std::string& path);

    void CountPlantedLink(const std::string& path);

    ModuleState& state_;
    RecentRestores recent_;
};

/// A name that a restore, or the kernel for an unnamed file, uses for a moment.
bool IsTransientName(const std::string& name);

/// Where the way from the protected path to `path` ends before it gets there: the first that is no
/// directory, or missing; empty when the way is free. No trailing "/".
std::string FirstObstacle(const AnchoredRule& rule, const std::string& path);

}  // namespace Engine
