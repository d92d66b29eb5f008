#pragma once

#include <json/value.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <list>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "base/SentrelDirRule.h"

namespace Engine {

/// What the module tells about itself: counters, and snapshots of what its tasks last knew.
///
/// The tasks and the policy callbacks write, the status query reads; any thread. Reset takes
/// everything back. It never influences what the module does.
class SentrelStatus {
  public:
    enum Counter : std::size_t {
        kRestoresDone,
        kRestoresFailed,
        kRemovalsDone,
        kRemovalsFailed,
        kAlarmsSent,
        kAlarmsMerged,
        kAlarmsLost,           ///< no report task took them
        kPlantedLinksRemoved,  ///< they stood where the backup copy has no link
        kEventsDeferred,       ///< left to be judged after the first backup
        kDeferredOverflows,    ///< the same, but there was no more room
        kRetries,              ///< events judged again since their undoing had failed
        kRetriesGivenUp,
        kTreesCompared,  ///< with their copies, since events could not be kept
        kCounterCount,
    };

    /// A path as the inotify task watches it.
    struct ProtectedPath {
        std::string watch_id;  ///< empty when the watch was refused
        SentrelDirRule rule;
    };

    void Count(Counter counter) { counters_[counter].fetch_add(1, std::memory_order_relaxed); }

    /// The protection was switched on with these settings; what is known of other paths is dropped.
    void SetProtectionOn(bool monitor_only, int backup_type,
                         const std::list<SentrelDirRule>& rules);
    void SetProtectionOff();

    /// The answer to the query "exclusions.sentrel_inotify_task" with the member "path", a
    /// protected path: {"prefixes": [...]}. Events of paths that begin with one of these, byte by
    /// byte, are ignored. It is ready before the task asks for its watches.
    Json::Value ExclusionsOf(const Json::Value& request) const;

    void PublishPaths(std::vector<ProtectedPath> paths);
    void ClearPaths() { PublishPaths({}); }

    void NoteLocalBackup(const std::string& real_path);
    void NoteRemoteBackup(const std::string& real_path);
    /// So many events, and trees, are to be judged again.
    void PublishBacklog(std::size_t deferred, std::size_t failed, std::size_t trees);
    void NoteFailure(const std::string& real_path, const std::string& text);
    /// An object that could not be copied, and why.
    struct OpenObject {
        std::string path;
        std::string reason;
    };
    /// `count` entries stand for objects of the path that have no backup copy; the first are named.
    void NoteOpenObjects(const std::string& real_path, std::size_t count,
                         std::vector<OpenObject> named);
    /// What keeps a path from being protected at this moment; empty when nothing does.
    void SetProblem(const std::string& real_path, const std::string& text);

    /// What the settings say at the moment of the query.
    struct RunFlags {
        bool is_run = false;
        bool local_backup_pending = false;
        bool remote_backup_pending = false;
    };

    /// Most of the answer to the query "status.sentrel". `watches` is the answer to
    /// "filenotify.watches", or null.
    Json::Value ToJson(const Json::Value& watches, const RunFlags& flags) const;

    void Reset();

  private:
    struct History {
        std::int64_t last_local_backup = 0;  ///< seconds since the epoch, 0 never
        std::int64_t last_remote_backup = 0;
        std::string last_failure;
        std::int64_t last_failure_at = 0;
        std::size_t open_objects = 0;
        std::vector<OpenObject> named_open_objects = {};
        std::string problem;
    };

    static Json::Value OpenObjectsToJson(const History& history);
    Json::Value PathsToJson(const Json::Value& watches) const;
    Json::Value CountersToJson() const;

    std::array<std::atomic<std::uint64_t>, kCounterCount> counters_{};
    std::atomic<std::size_t> deferred_{0};
    std::atomic<std::size_t> failed_{0};
    std::atomic<std::size_t> trees_{0};
    mutable std::mutex mutex_;  ///< guards all below
    bool on_ = false;
    bool monitor_only_ = false;
    int backup_type_ = 0;
    std::vector<ProtectedPath> paths_;
    std::map<std::string, History> history_;                      ///< by real_path
    std::map<std::string, std::vector<std::string>> exclusions_;  ///< by real_path
};

}  // namespace Engine
