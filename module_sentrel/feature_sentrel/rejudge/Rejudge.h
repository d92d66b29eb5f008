#pragma once

#include <chrono>
#include <cstddef>
#include <ctime>
#include <functional>
#include <limits>
#include <map>
#include <optional>
#include <set>
#include <string>

#include "base/SentrelDirRule.h"
#include "feature_sentrel/event_path/FileChange.h"
#include "feature_sentrel/event_path/RecentRestores.h"
#include "feature_sentrel/rejudge/PendingEvents.h"
#include "feature_sentrel/rejudge/RetryQueue.h"
#include "feature_sentrel/rejudge/TreeReconciler.h"

namespace Engine {

class BackupProgress;
struct ModuleState;

/// Reads what came of each change and sees to it that none is lost: keeps what has to wait for the
/// first backup and what could not be undone, and compares trees of which changes could not be
/// kept, or of which an object was changed that may have other names. Hands them to the same
/// handling again. Inotify task's thread.
class Rejudge {
  public:
    using Clock = std::chrono::steady_clock;

    /// What it needs of its owner, which outlives it.
    struct Owner {
        /// Handles the change once more; what came of it.
        std::function<Handling(const FileChange&)> judge;
        /// The rule of a watch; null when there is none any more.
        std::function<const SentrelDirRule*(const std::string& watch_id)> rule;
        /// Nothing is to be said of that path; a directory's ends in "/".
        std::function<bool(const SentrelDirRule&, const std::string& path)> ignored;
        /// The pass should end: somebody else waits.
        std::function<bool()> should_yield;
    };

    /// `state` is borrowed. At most `backlog` changes of each kind are kept.
    Rejudge(Owner owner, ModuleState& state, std::size_t backlog);

    /// Called with every change that was handled; `recent` tells what was put right since.
    void Take(const FileChange& change, const Handling& handling, const RecentRestores& recent);

    /// Judges a portion of what waits and is due as of `now`. True when there is more to do at
    /// once.
    bool HandleDue(Clock::time_point now, const RecentRestores& recent);

    /// Has the whole tree compared with its copy once that is complete: its changes could not be
    /// judged for a while.
    void CompareAll(const std::string& watch_id) { to_compare_[watch_id].everything = true; }

    void Forget();

  private:
    /// What of a tree is to be compared with its copy.
    struct Scope {
        bool everything = false;
        std::set<ObjectId> objects = {};  ///< and their names anywhere in the tree
        /// And objects changed since then, by the wall clock.
        std::time_t changed_since = std::numeric_limits<std::time_t>::max();
    };

    Handling Judge(const FileChange& change, const RecentRestores& recent);
    void Defer(const FileChange& change);
    void KeepFailed(FileChange change);
    void CompareLater(const std::string& watch_id);
    void NoteVanished(const FileChange& change, const RecentRestores& recent);
    bool HandleDeferred(const RecentRestores& recent);
    bool HandleFailed(Clock::time_point now, const RecentRestores& recent);
    bool CompareTrees(Clock::time_point now, const RecentRestores& recent);
    bool MayCompare(const std::string& watch_id) const;
    void BeginComparison(const std::string& watch_id, const RecentRestores& recent);
    void EndComparison(bool is_complete);
    bool IsInScope(const std::string& path) const;

    const Owner owner_;
    ModuleState& state_;
    PendingEvents deferred_;
    RetryQueue failed_;
    Clock::time_point retries_rest_until_{};
    std::map<std::string, Scope> to_compare_;  ///< by watch id
    std::string comparing_;                    ///< the tree of sweep_, when that is there
    Scope scope_;
    Clock::time_point comparison_begun_{};
    Clock::time_point comparisons_rest_until_{};
    std::optional<TreeReconciler> sweep_;
};

/// This module makes the rule's local copies, and those of the present round are not complete.
bool AwaitsBackup(const SentrelDirRule& rule, const BackupProgress& progress);

}  // namespace Engine
