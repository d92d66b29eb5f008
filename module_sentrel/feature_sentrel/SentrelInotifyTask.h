#pragma once

#include <framework/Message.h>
#include <framework/Task.h>
#include <module_filenotify/AbstractMessageReceiver.h>
#include <sdk/files/FileDescriptor.h>
#include <sdk/files/TreeRemoval.h>

#include <chrono>
#include <list>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "base/SentrelDirRule.h"
#include "baseline/OperatorRequests.h"
#include "feature_sentrel/alarms/AlarmReporter.h"
#include "feature_sentrel/alarms/EvidenceSettings.h"
#include "feature_sentrel/alarms/SentrelCacheMsg.h"
#include "feature_sentrel/backup/DeployPutting.h"
#include "feature_sentrel/event_path/BackupComparer.h"
#include "feature_sentrel/event_path/FileChange.h"
#include "feature_sentrel/event_path/LargeFileCheck.h"
#include "feature_sentrel/event_path/Undoer.h"
#include "feature_sentrel/reconcile/BaselineCheck.h"
#include "feature_sentrel/reconcile/Reconciler.h"
#include "feature_sentrel/reconcile/StartCheck.h"
#include "feature_sentrel/rejudge/Rejudge.h"
#include "places/MountTable.h"
#include "places/ReleaseLinks.h"
#include "shield/Shield.h"

namespace Engine {

class FileNotifyMessage;
struct ModuleState;

/// Watches the protected paths, decides for every change whether it is tampering, has it undone and
/// raises alarms. Owned by the module. Everything runs on the task's own thread, so the members
/// need no lock; `alarm_cache` outlives registrations, the watches do not.
///
/// It contains the order of the steps. Objects of their own carry them out: BackupComparer
/// and LargeFileCheck compare, Undoer undoes, AlarmReporter reports, Rejudge has a change handled
/// again.
class SentrelInotifyTask : public Framework::Task, public AbstractMessageReceiver {
  public:
    /// `state` is borrowed and must outlive the task. At most `backlog` changes that have to wait,
    /// and as many that could not be undone, are kept.
    explicit SentrelInotifyTask(ModuleState& state, std::size_t backlog = PendingEvents::kCapacity);

    // The task (SentrelInotifyTask.cpp).

    bool Init() override;
    bool UnInit() override;
    /// One cycle: work-time gate, at most a second of waiting, at most 128 events, ageing of the
    /// alarm cache. Always 0.
    int Run() override;

    void AddFileNotifyWatches();
    void RmvFileNotifyWatches();
    /// Returns the watch id; empty when the file-notify task gave none.
    std::string HandleFileNotifyWatch(bool remove, const std::string& path);

    /// True when protection works then; also for arguments out of range. `sec` is the minute of the
    /// day.
    bool SentrelCheckWork(int weekday, int sec);
    void CheckDisableTime();

    // One change (SentrelEvents.cpp).

    /// The file-notify module delivers each change here. When no other change waits, the alarm has
    /// been sent on return; otherwise it follows when all waiting changes have been undone.
    void FileNotifyMessageAction(FileNotifyMessage* msg) override;

    /// False when the event needs no further handling. Adds to `handling` what was done.
    bool HandleMoveEvent(const SentrelDirRule& rule, FileNotifyMessage* msg,
                         const std::string& path, Handling& handling);

    /// Restores or removes, as asked. Does nothing when the policy only monitors, or for an object
    /// that could not be backed up. Until the rule's first local backup is complete, only a file or
    /// link that has a copy is restored.
    UndoResult AutoRestoreFile(const SentrelDirRule& rule, bool restore, bool remove,
                               const std::string& path);

    /// False when the backup copy is there but cannot be read.
    bool GetBackupFileInfo(const std::string& path, const SentrelDirRule& rule, bool& exists,
                           BackupFileInfo& info);

    // Texts and alarms (SentrelAlarms.cpp).

    /// False when the event must not be handled.
    bool HandleEventBuildStr(std::string event_path, std::string moveto_file, bool is_dir,
                             unsigned int mask, std::string& file1, std::string& file2);
    std::string HandleFileAttrDiff(const std::string& backup, const std::string& changed);
    /// At most 1024 bytes; empty for what is no text file. Blocks for at most five seconds.
    std::string HandleFileContentDiff(const std::string& backup, const std::string& changed);
    bool IsMessageMerged(const SentrelCacheMsg& msg);
    void AddMessageToCache(SentrelCacheMsg& msg);
    void CleanOldMessageFromCache();
    void SentrelSendAlarm(const std::string& file_path, alarm_type type, const std::string& diff,
                          const std::string& diff_attr);

    /// Judges again a portion of the changes that are due as of `now`.
    void HandleBacklog(std::chrono::steady_clock::time_point now);

    /// As WhoAsker::Tick.
    void TickSentry(const Json::Value& sentry) { who_.Tick(sentry); }

    std::map<std::string, SentrelDirRule> watch_rules;  ///< by watch id
    std::list<SentrelCacheMsg> alarm_cache;             ///< the front is the oldest

  private:
    /// What an alarm needs from before its change is undone.
    struct Description {
        PinnedFile pinned = {};
        std::string diff_attr = {};
        std::string copy = {};  ///< to compare `pinned` with; empty: the alarm shows no content
    };

    Rejudge::Owner RejudgeOwner();
    Reconciler::Owner ReconcilerOwner();
    std::optional<Reconciler::Basis> BasisOf(const SentrelDirRule& rule) const;
    void NoteLook(const Reconciler::Look& look);
    void CheckPlaces();
    void CheckPlace(const std::string& watch_id, const SentrelDirRule& rule,
                    const std::string& link_problem);
    std::string WhyLinksAreHeld() const;
    void FollowRelease(const std::string& watch_id, const std::string& target);
    void PublishRules();
    std::list<SentrelDirRule> RulesInForce() const;
    void TellMounts(const std::string& watch_id, const AnchoredRule& places,
                    const std::vector<MountTable::Difference>& mounts);
    void WatchMounts();
    void TakeMountsForNormal();
    bool IsBehindMount(const SentrelDirRule& rule, const std::string& path) const;

    // Comparing with the approved state (SentrelBaselines.cpp).

    std::string BaselineProblem(const SentrelDirRule& rule) const;
    void StartChecks();
    bool TakeCheckResults();
    void TakeFound(const BaselineCheck::Found& found);
    void EndCheck(const BaselineCheck::Ended& ended);
    void StartRestore();
    void TakeToRestore(const SentrelDirRule& rule, const std::string& path,
                       const BaselineCheck::Found& found);
    void EndRestore(const BaselineCheck::Ended& ended);
    void ReleaseIfChanged(const FileNotifyMessage& msg);
    bool HasLostItsCopy(const SentrelDirRule& rule, const std::string& path);
    bool IsHeldByPause(const SentrelDirRule& rule, const std::string& path);
    void EndPauses();
    void ReportShield();
    void ReportHealed(Shield::Told told);
    void ReportCopyFaults(const SentrelDirRule& rule, const UndoResult& undoing);

    /// `is_told`: Handling::is_told.
    Handling Judge(FileNotifyMessage& msg, bool is_told = false);
    Handling JudgeLeftOut(const FileNotifyMessage& msg, bool is_told);
    static bool IsLeftOut(const std::string& path);
    void JudgeFile(const SentrelDirRule& rule, std::uint32_t mask, const std::string& file,
                   std::chrono::steady_clock::time_point read_time, Handling& handling);
    void UndoAndReport(const SentrelDirRule& rule, const std::string& file, alarm_type type,
                       bool restore, bool remove, std::chrono::steady_clock::time_point read_time,
                       Handling& handling);
    Description Describe(const SentrelDirRule& rule, const std::string& file, alarm_type type);
    SDK::RemovalVisitor KeeperOf(const std::string& directory);
    BackupComparer Comparer(const SentrelDirRule& rule, const RulePlaces& places) const;
    Deviation Compare(const SentrelDirRule& rule, const RulePlaces& places, const std::string& file,
                      const BackupFileInfo& info);
    Deviation CompareWhole(const SentrelDirRule& rule, const RulePlaces& places,
                           const std::string& file);
    void JudgeLargeFiles();
    bool IsIgnored(const SentrelDirRule& rule, const std::string& file);
    bool IsChangeOfUnnamed(const SentrelDirRule& rule, std::uint32_t mask,
                           const std::string& file) const;
    bool IsMoveIgnored(const SentrelDirRule& rule, const std::string& path);
    bool IsGoneTransient(const SentrelDirRule& rule, const std::string& file) const;
    bool IsRestoredAlone(const SentrelDirRule& rule, const std::string& path) const;
    void NoteOtherNames(const SentrelDirRule& rule, const std::string& file,
                        const PinnedFile& pinned, Handling& handling) const;

    void SendAlarm(const Alarm& alarm);
    void SendAlarms();
    void Deliver(const Alarm& alarm);
    void DeliverMerged(const std::vector<Alarm>& merged);

    ModuleState& state_;
    AlarmReporter alarms_;
    WhoAsker who_;
    Undoer undoer_;
    DeployPutting deploys_;
    Rejudge rejudge_;
    Reconciler reconciler_;
    LargeFileCheck large_files_;
    /// What the checks of a protected path have found.
    struct Finding {
        std::string problem;
        int checks = 0;                     ///< in a row that found it
        std::set<std::string> mounts = {};  ///< that an alarm has told
    };
    std::map<std::string, Finding> findings_;  ///< by watch id
    SDK::FileDescriptor mount_events_;
    BaselineCheck check_;
    CheckSettings check_settings_;
    EvidenceSettings evidence_;
    CheckAction check_action_ = CheckAction::kHold;  ///< of the checks that are under way
    std::set<std::string> being_checked_;            ///< by watch id
    /// A restore that an operator wants.
    struct RestoreRun {
        std::size_t jobs = 0;  ///< that have not ended
        OperatorRequests::Result result = {};
    };
    std::map<std::uint64_t, RestoreRun> restores_;  ///< by request
    int last_full_check_day_ = -1;                  ///< of the year
    ReleaseLinks::Mode release_mode_ = ReleaseLinks::Mode::kFollow;
    std::chrono::steady_clock::time_point next_look_{};
};

}  // namespace Engine
