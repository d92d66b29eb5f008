#pragma once

#include <json/value.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <list>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "base/SentrelDirRule.h"
#include "status/LatencyHistogram.h"

namespace Engine {

/// The module's report about itself: counters, and snapshots of what its tasks last knew.
///
/// The tasks and the policy callbacks write, the status query reads. It never influences what the
/// module does. Owned by ModuleState. Thread-safe.
class SentrelStatus {
  public:
    enum Counter : std::size_t {
        kRestoresDone,
        kRestoresFailed,
        kRemovalsDone,
        kRemovalsFailed,
        kAlarmsSent,
        kAlarmsMerged,
        kAlarmsLost,           ///< no report task accepted them
        kPlantedLinksRemoved,  ///< they stood where the backup copy has no link
        kEventsDeferred,       ///< they wait for the first backup
        kDeferredOverflows,    ///< there was no room for them to wait
        kRetries,              ///< events judged again after an undo failed
        kRetriesGivenUp,
        kTreesCompared,  ///< with their copies, because events could not be kept
        kLooks,          ///< of the reconciler, through one path each
        kFoundByLooks,   ///< changes that no event told
        kCounterCount,
    };

    /// A path that the inotify task watches.
    struct ProtectedPath {
        std::string watch_id;  ///< empty when the watch was refused
        SentrelDirRule rule;
    };

    void Count(Counter counter) { counters_[counter].fetch_add(1, std::memory_order_relaxed); }

    /// A change was undone; `counter` is kRestoresDone or kRemovalsDone.
    void CountUndone(Counter counter);

    /// The time from reading an event to its change being undone; below 0: not known.
    void NoteUndoLatency(double duration_ms) { undo_latency_.Note(duration_ms); }

    /// The protection was switched on with these settings. Drops what is known of other paths.
    void SetProtectionOn(bool monitor_only, int backup_type,
                         const std::list<SentrelDirRule>& rules);
    void SetProtectionOff();

    /// The answer to the query "exclusions.sentrel_inotify_task" with the member "path", a
    /// protected path: {"prefixes": [...]}. The task ignores events of paths that begin with one of
    /// these, byte by byte. Ready before the task asks for its watches.
    Json::Value ExclusionsOf(const Json::Value& request) const;

    bool IsMonitorOnly() const;

    void PublishPaths(std::vector<ProtectedPath> paths);
    void ClearPaths() { PublishPaths({}); }
    /// The rules of the paths that are published.
    std::vector<SentrelDirRule> Rules() const;

    void NoteLocalBackup(const std::string& real_path);
    /// The copies that were made at `seconds` since the epoch are used further.
    void NoteAdoptedBackup(const std::string& real_path, std::int64_t seconds);
    void NoteRemoteBackup(const std::string& real_path);
    /// The numbers of events and trees that wait to be judged again, and of changes that wait for
    /// the next look because their retries were given up.
    void PublishBacklog(std::size_t deferred, std::size_t failed, std::size_t trees,
                        std::size_t given_up);
    /// The number of large files that wait to be compared as a whole, and the bytes compared so
    /// far.
    void PublishLargeFiles(std::size_t waiting, std::uint64_t bytes_compared);
    void NoteFailure(const std::string& real_path, const std::string& text);
    /// An object that could not be copied, and why.
    struct OpenObject {
        std::string path;
        std::string reason;
    };
    /// `count` objects of the path have no backup copy; `named` are the first of them.
    void NoteOpenObjects(const std::string& real_path, std::size_t count,
                         std::vector<OpenObject> named);
    /// The kinds of extended attributes that are not compared, in words; empty when all are.
    void NoteAttributesLeftOut(const std::string& real_path, const std::string& kinds);
    /// Why the path is not protected at this moment; empty when it is.
    void SetProblem(const std::string& real_path, const std::string& text);

    /// The reconciler has looked through the path: at `seen` objects, of which `found` had changed
    /// without an event.
    void NoteLook(const std::string& real_path, std::chrono::milliseconds duration,
                  std::size_t seen, std::size_t found);

    /// One comparison with the approved state.
    struct Check {
        bool is_full = false;  ///< every content was read
        std::chrono::milliseconds duration{0};
        std::size_t objects = 0;
        std::uint64_t bytes = 0;  ///< read
        std::size_t found = 0;    ///< differences
    };
    void NoteCheck(const std::string& real_path, const Check& check);

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
        std::string attributes_left_out;
        std::int64_t last_look = 0;  ///< seconds since the epoch, 0 never
        std::chrono::milliseconds look_duration{0};
        std::size_t look_seen = 0;
        std::size_t look_found = 0;
        std::int64_t last_check = 0;  ///< seconds since the epoch, 0 never
        Check check = {};
    };

    static Json::Value OpenObjectsToJson(const History& history);
    static Json::Value LookToJson(const History& history);
    static Json::Value CheckToJson(const History& history);
    Json::Value PathsToJson(const Json::Value& watches) const;
    Json::Value CountersToJson() const;

    std::array<std::atomic<std::uint64_t>, kCounterCount> counters_{};
    LatencyHistogram undo_latency_;
    std::atomic<std::int64_t> last_undone_{0};  ///< seconds since the epoch, 0 never
    std::atomic<std::size_t> deferred_{0};
    std::atomic<std::size_t> failed_{0};
    std::atomic<std::size_t> trees_{0};
    std::atomic<std::size_t> given_up_{0};
    std::atomic<std::size_t> large_files_{0};
    std::atomic<std::uint64_t> large_bytes_{0};
    mutable std::mutex mutex_;  ///< guards all below
    bool on_ = false;
    bool monitor_only_ = false;
    int backup_type_ = 0;
    std::vector<ProtectedPath> paths_;
    std::map<std::string, History> history_;                      ///< by real_path
    std::map<std::string, std::vector<std::string>> exclusions_;  ///< by real_path
};

}  // namespace Engine
