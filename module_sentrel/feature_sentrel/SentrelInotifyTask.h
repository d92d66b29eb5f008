#pragma once

#include <AlarmIndex.h>
#include <ContentDiff.h>
#include <DeferredEvents.h>
#include <Evidence.h>
#include <FailedEvents.h>
#include <OwnRestores.h>
#include <SentrelCacheMsg.h>
#include <SentrelDirRule.h>
#include <SentrelUtils.h>
#include <TreeSweep.h>
#include <framework/Message.h>
#include <framework/Task.h>
#include <module_filenotify/AbstractMessageReceiver.h>
#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <ctime>
#include <limits>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>

namespace Engine {

class FileNotifyMessage;

/// Watches the protected paths and decides, for every change, whether it is tampering; restores and
/// raises alarms. Owned by the module. Everything runs on the task's own thread, so the members
/// need no lock; `alarm_cache` outlives registrations, the watches do not.
class SentrelInotifyTask : public Framework::Task, public AbstractMessageReceiver {
  public:
    /// `backlog`: so many events at most are kept of those that have to wait, and of those that
    /// could not be undone.
    explicit SentrelInotifyTask(std::size_t backlog = DeferredEvents::kCapacity);

    bool Init() override;
    bool UnInit() override;
    /// One cycle: work-time gate, at most a second of waiting, at most 128 events, ageing of the
    /// alarm cache. Always 0.
    int Run() override;

    /// One change, as the file-notify module delivers it. Restoring blocks until rsync has ended,
    /// unless more changes wait: then a single file may still be on its way back afterwards, and
    /// its alarm is sent with the next change or at the end of the pass.
    void FileNotifyMessageAction(FileNotifyMessage* msg) override;

    // Watches.
    void AddFileNotifyWatches();
    void RmvFileNotifyWatches();
    /// The watch id; empty when the file-notify task did not give one.
    std::string HandleFileNotifyWatch(bool remove, const std::string& path);

    // Events (SentrelEvents.cpp).
    /// False: the event needs no further handling.
    bool HandleMoveEvent(const SentrelDirRule& rule, FileNotifyMessage* msg,
                         const std::string& path);

    // Undoing (SentrelRestore.cpp).
    /// Restores, or else removes, as asked; nothing when the policy says so. Notes in the current
    /// event what came of it. Until the rule's first local backup is complete only a file or link
    /// that has a copy is put back; the event is then kept for HandleBacklog, as is one that could
    /// not be undone.
    void AutoRestoreFile(const SentrelDirRule& rule, bool restore, bool remove,
                         const std::string& path);

    // What is to be judged again (SentrelBacklog.cpp).
    /// Judges a portion of it: what had to wait for a backup that is complete by now, what could
    /// not be undone and is due as of `now`, and trees of which changes could not be kept.
    void HandleBacklog(FailedEvents::Clock::time_point now);

    // Comparison (SentrelCompare.cpp).
    /// What a file is compared with.
    struct BackupFileInfo {
        off_t size = 0;
        std::time_t mtime = 0;
        std::string mode;
        std::string path = {};  ///< of the copy, whose digest is taken only when all else agrees
        uid_t uid = 0;
        gid_t gid = 0;
    };
    /// False when the backup copy is there but cannot be read.
    bool GetBackupFileInfo(const std::string& path, const SentrelDirRule& rule, bool& exists,
                           BackupFileInfo& info);
    /// False: the event is not to be handled.
    bool HandleEventBuildStr(std::string event_path, std::string moveto_file, bool is_dir,
                             unsigned int mask, std::string& file1, std::string& file2);
    std::string HandleFileAttrDiff(const std::string& backup, const std::string& changed);
    /// At most 1024 bytes; blocks for at most five seconds. Empty for what is no text file.
    std::string HandleFileContentDiff(const std::string& backup, const std::string& changed);

    // Alarms (SentrelAlarms.cpp).
    bool IsMessageMerged(const SentrelCacheMsg& msg);
    void AddMessageToCache(SentrelCacheMsg& msg);
    void CleanOldMessageFromCache();
    void SentrelSendAlarm(const std::string& file_path, alarm_type type, const std::string& diff,
                          const std::string& diff_attr);

    // Work time (SentrelWorkTime.cpp).
    /// `sec` is the minute of the day. True: protection works then; also for arguments out of
    /// range.
    bool SentrelCheckWork(int weekday, int sec);
    void CheckDisableTime();

    std::map<std::string, SentrelDirRule> watch_rules;  ///< by watch id
    std::list<SentrelCacheMsg> alarm_cache;             ///< the front is the oldest

  private:
    /// The restore of a file that goes on while the next change is judged.
    struct RestoreUnderWay {
        DeferredEvent source;
        std::string path;
        std::string target;  ///< what rsync puts back: the path, or a directory above it
        std::string rule_path;
        OwnRestores::Clock::time_point begun{};
        bool is_way_clear = false;
        std::unique_ptr<SentrelUtils::RunningCopy> copy;
    };
    /// What was done about the event that is being handled.
    struct CurrentEvent {
        DeferredEvent source;  ///< read_time zero: not known
        std::string outcome = "reported only";
        Evidence evidence;                         ///< what stood there before it was put right
        std::unique_ptr<RestoreUnderWay> restore;  ///< none: `outcome` is final
        /// One above the path that was restored with all that it held, since it had gone.
        std::string lost_directory = {};
    };

    void HandleFileEvent(const SentrelDirRule& rule, const std::string& rule_path,
                         std::uint32_t mask, const std::string& file);
    /// The directory that a rule's exclusions are relative to, ending in "/".
    static std::string RulePath(const SentrelDirRule& rule);
    bool IsIgnored(const SentrelDirRule& rule, const std::string& rule_path,
                   const std::string& file);
    bool IsMoveIgnored(const SentrelDirRule& rule, const std::string& path);
    void HandleUnknownFile(const SentrelDirRule& rule, std::uint32_t mask, const std::string& file);
    bool DiffersFromBackup(const std::string& file, const BackupFileInfo& info);
    bool LacksContent(const SentrelDirRule& rule, const std::string& file);
    void RestoreFromBackup(const SentrelDirRule& rule, const std::string& path);
    std::string ConcludeRestore(const RestoreUnderWay& restore);
    bool MayOverlap(mode_t backup_type, const std::string& path, const std::string& target) const;
    void SettleBefore(const std::string& path);
    void RemoveForeign(const SentrelDirRule& rule, const std::string& path);
    static bool AwaitsBackup(const SentrelDirRule& rule);
    void Defer(const std::string& path);
    void KeepFailed(const DeferredEvent& source, const std::string& path,
                    const std::string& target);
    void SweepLater(const std::string& watch_id);
    void NoteOtherNames(const std::string& path);
    void NoteVanished(std::uint32_t mask, const std::string& path);
    void JudgeAgain(const DeferredEvent& event);
    bool HandleDeferredEvents();
    bool HandleFailedEvents(FailedEvents::Clock::time_point now);
    bool SweepTrees(std::chrono::steady_clock::time_point now);
    bool MaySweep(const std::string& watch_id) const;
    void BeginSweep(const std::string& watch_id);
    void EndSweep(bool is_complete);
    void ForgetBacklog();

    /// An alarm of what is being put right, or while its difference is found out.
    struct PendingAlarm {
        std::unique_ptr<RestoreUnderWay> restore;
        std::string file;
        alarm_type type = ALARM_UNKNOWN;
        std::string diff_attr;
        std::string lost_directory;
        Framework::ReportNote note;
        Evidence evidence;
        ContentDiff diff;
    };
    void RaiseAlarm(const SentrelDirRule& rule, const std::string& file, alarm_type type);
    void SendPendingAlarm();
    void SendAlarm(const std::string& file_path, alarm_type type, const std::string& diff,
                   const std::string& diff_attr, const Framework::ReportNote& note);
    Framework::ReportNote NoteOfEvent() const;

    std::optional<PendingAlarm> pending_alarm_;  ///< within one pass only
    AlarmIndex alarm_index_;
    CurrentEvent current_event_;
    OwnRestores own_restores_;
    DeferredEvents deferred_;
    FailedEvents failed_;
    unsigned int tries_ = 0;       ///< of the event that is judged again
    bool judging_failed_ = false;  ///< what was judged again last could not be undone
    FailedEvents::Clock::time_point retries_rest_until_{};
    /// What of a tree is to be compared with its copy.
    struct SweepScope {
        bool everything = false;
        std::set<std::pair<dev_t, ino_t>> objects = {};  ///< and their names anywhere in the tree
        /// And objects changed since then, by the wall clock.
        std::time_t changed_since = std::numeric_limits<std::time_t>::max();
        bool IsUrgent() const { return everything || !objects.empty(); }
    };
    static bool IsWithin(const SweepScope& scope, const std::string& path);
    std::map<std::string, SweepScope> to_sweep_;  ///< by watch id
    std::string sweeping_;                        ///< the tree of sweep_, when that is there
    SweepScope sweep_scope_;
    std::chrono::steady_clock::time_point sweep_begun_{};
    std::chrono::steady_clock::time_point sweeps_rest_until_{};  ///< those that are not urgent
    bool judging_swept_ = false;  ///< what is judged was found by sweep_
    std::optional<TreeSweep> sweep_;
};

}  // namespace Engine
