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
#include "feature_sentrel/rejudge/GivenUpChanges.h"
#include "feature_sentrel/rejudge/PendingEvents.h"
#include "feature_sentrel/rejudge/RetryQueue.h"
#include "feature_sentrel/rejudge/TreeReconciler.h"

namespace Engine {

class BackupProgress;
struct ModuleState;

/// Reads the result of each change so that no change is lost. It keeps changes that wait for the
/// first backup and changes whose undo failed, and hands them to the same handling again. It
/// compares a tree with its copy when changes could not be kept, or when a changed object may have
/// other names. Inotify task's thread.
class Rejudge {
  public:
    using Clock = std::chrono::steady_clock;

    /// Calls to the owner, which outlives this object.
    struct Owner {
        /// Handles the change once more.
        std::function<Handling(const FileChange&)> judge;
        /// The rule of a watch; null when it is gone.
        std::function<const SentrelDirRule*(const std::string& watch_id)> rule;
        /// True for an excluded path; a directory's ends in "/".
        std::function<bool(const SentrelDirRule&, const std::string& path)> ignored;
        /// True when the pass should end because somebody waits.
        std::function<bool()> should_yield;
    };

    /// `state` is borrowed. At most `backlog` changes of each kind are kept.
    Rejudge(Owner owner, ModuleState& state, std::size_t backlog);

    /// To be called with every handled change; `recent` knows what was restored since.
    void Take(const FileChange& change, const Handling& handling, const RecentRestores& recent);

    /// Judges a portion of the changes that are due as of `now`. True when more is to be done at
    /// once.
    bool HandleDue(Clock::time_point now, const RecentRestores& recent);

    /// Has the change judged now and keeps it if that is needed; its outcome.
    Handling Judge(const FileChange& change, const RecentRestores& recent);

    /// Requests a comparison of the whole tree once its copy is complete: its changes could not be
    /// judged for a while.
    void CompareAll(const std::string& watch_id) { to_compare_[watch_id].everything = true; }

    /// Has the changes that were given up judged again, one after the other; a failure starts no
    /// new retries.
    void RetryGivenUp(const std::string& watch_id) { given_up_.Wake(watch_id); }

    void Forget();
    /// The watch is gone, and its changes with it.
    void Forget(const std::string& watch_id) { to_compare_.erase(watch_id); }

  private:
    /// The part of a tree that is to be compared with its copy.
    struct Scope {
        bool everything = false;
        std::set<ObjectId> objects = {};  ///< wherever their names are in the tree
        /// Also objects that changed since then, by the wall clock.
        std::time_t changed_since = std::numeric_limits<std::time_t>::max();
    };

    void Defer(const FileChange& change);
    void KeepFailed(FileChange change);
    void CompareLater(const std::string& watch_id);
    void NoteVanished(const FileChange& change, const RecentRestores& recent);
    bool HandleDeferred(const RecentRestores& recent);
    bool HandleFailed(Clock::time_point now, const RecentRestores& recent);
    bool HandleGivenUp(Clock::time_point now, const RecentRestores& recent);
    void GiveUp(FileChange change);
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
    GivenUpChanges given_up_;
    Clock::time_point given_up_rest_until_{};
    std::map<std::string, Scope> to_compare_;  ///< by watch id
    std::string comparing_;                    ///< the watch id of reconciler_
    Scope scope_;
    Clock::time_point comparison_begun_{};
    Clock::time_point comparisons_rest_until_{};
    std::optional<TreeReconciler> reconciler_;
};

/// This module makes the rule's local copies, and those of the present round are not complete, or
/// it is not known yet what to hold.
bool AwaitsBackup(const SentrelDirRule& rule, const BackupProgress& progress);

}  // namespace Engine
