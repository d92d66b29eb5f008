// Owns nothing: what is still to be copied are the two pending flags of SentrelUtils. It must not
// touch the protected paths (the inotify task restores). Task's thread; a waiting policy interrupts
// the copy that runs.
#include <BackupProgress.h>
#include <ProtectedWay.h>
#include <SentrelBackupTask.h>
#include <SentrelStatus.h>
#include <SentrelUtils.h>
#include <TaskSteps.h>
#include <WatchList.h>
#include <sdk/Log.h>

#include <algorithm>
#include <chrono>
#include <cstdint>

namespace Engine {

namespace {

constexpr const char* kTaskId = "sentrel_backup_task";
constexpr unsigned int kQueueCapacity = 1024;
constexpr int kLongestLookMs = 50;  // a look at the watches takes some microseconds
constexpr std::chrono::seconds kAppearLimit{10};
constexpr std::chrono::seconds kWalkLimit{120};

void YieldBeforePass() {
    static unsigned long last_cpu_tick = 0;
    YieldCpu(last_cpu_tick, __FILE__, __LINE__, kTaskId);
}

void YieldInPass() {
    static unsigned long last_cpu_tick = 0;
    YieldCpu(last_cpu_tick, __FILE__, __LINE__, kTaskId);
}

/// Unless a pause of protection ended while the pass was made: what was copied before that lacks
/// the updates of the pause, and the gate, under the same lock, has asked for it anew.
void ClearPending(std::atomic<bool>& pending, std::uint64_t round) {
    const Poco::FastMutex::ScopedLock lock(SentrelUtils::GetInstance()->mutex);
    if (BackupProgress::Instance().Round() == round) pending = false;
}

}  // namespace

SentrelBackupTask::SentrelBackupTask()
    : Framework::Task(kTaskId, "sentrel_feature", Framework::TaskCondition::kPeriodic,
                      kQueueCapacity) {}

bool SentrelBackupTask::Init() {
    SDK_LOG(ModuleLogger(), PRIO_INFORMATION, "Task(%s) init.", Id());
    PrepareRsyncForTask();
    return Framework::Task::Init();
}

bool SentrelBackupTask::UnInit() {
    const bool result = Framework::Task::UnInit();
    SDK_LOG(ModuleLogger(), PRIO_INFORMATION, "Task(%s) uninit.", Id());
    return result;
}

int SentrelBackupTask::Run() {
    SentrelUtils* utils = SentrelUtils::GetInstance();
    const std::uint64_t round = BackupProgress::Instance().Round();
    if (!utils->MakesLocalBackup()) {
        SDK_LOG(ModuleLogger(), PRIO_TRACE, "remote backup not local.");
        return 0;
    }
    if (!utils->local_backup_pending && !utils->remote_backup_pending) {
        SDK_LOG(ModuleLogger(), PRIO_TRACE, "all backup ok, no need backup again.");
        return 0;
    }
    YieldBeforePass();
    std::uint64_t local_ok = 0;
    std::uint64_t remote_ok = 0;
    for (const SentrelDirRule& rule : utils->dir_rules) {
        YieldInPass();
        if (utils->local_backup_pending && AwaitWatch(rule) && BackUpLocally(rule, local_ok)) {
            ++local_ok;
        }
        if (utils->backup_type == kLocalAndRemote && utils->remote_backup_pending &&
            PushToServer(rule)) {
            ++remote_ok;
        }
    }
    if (local_ok == utils->dir_rules.size()) {
        SDK_LOG(ModuleLogger(), PRIO_INFORMATION, "local backup all ok.");
        ClearPending(utils->local_backup_pending, round);
    }
    if (remote_ok == utils->dir_rules.size()) {
        SDK_LOG(ModuleLogger(), PRIO_INFORMATION, "remote backup all ok.");
        ClearPending(utils->remote_backup_pending, round);
    }
    return 0;
}

bool SentrelBackupTask::AwaitWatch(const SentrelDirRule& rule) {
    const auto begin = std::chrono::steady_clock::now();
    for (int wait_ms = 1;; wait_ms = std::min(2 * wait_ms, kLongestLookMs)) {
        const Watching watching = WatchingOf(rule);
        if (watching == Watching::kReady) return true;
        const auto limit = watching == Watching::kMissing ? kAppearLimit : kWalkLimit;
        if (watching == Watching::kUnknown || std::chrono::steady_clock::now() - begin >= limit) {
            SDK_LOG(ModuleLogger(), PRIO_WARNING, "backup (%s) does not wait for its watch.",
                    rule.real_path);
            return true;
        }
        if (ShouldYield()) return false;
        Waiter().WaitAndHandleEvent(wait_ms, 1);
        BulkConsumeMsg(kQueueCapacity);
    }
}

bool SentrelBackupTask::BackUpLocally(const SentrelDirRule& rule, unsigned long succeeded_before) {
    SentrelUtils* utils = SentrelUtils::GetInstance();
    const std::uint64_t round = BackupProgress::Instance().BeginCopy();
    // Given with its "/", a link in place of the directory would be followed, and what it leads to
    // taken for the good state.
    const bool replaced = !rule.is_file && ProtectedWay(rule, rule.real_path).HasLink();
    if (replaced || !utils->DoRsyncLocal(rule.real_path, rule.backup_path, rule.ignored_postfix,
                                         rule.ignored_subdir, RSYNC_BACKUP)) {
        SDK_LOG(ModuleLogger(), PRIO_ERROR, "Backup (%s) to (%s) faild.", rule.real_path,
                rule.backup_path);
        SentrelStatus::Instance().NoteFailure(
            rule.real_path, "local backup: " + (replaced ? "a symbolic link stands in its place"
                                                         : utils->LastCopyError()));
        return false;
    }
    SDK_LOG(ModuleLogger(), PRIO_TRACE, "Backup (%s) to (%s) success num(%lu).", rule.real_path,
            rule.backup_path, succeeded_before + 1);
    SentrelStatus::Instance().NoteLocalBackup(rule.real_path);
    // A copy that was begun before the last pause of protection lacks what was changed in that.
    return BackupProgress::Instance().NoteComplete(rule, round);
}

bool SentrelBackupTask::PushToServer(const SentrelDirRule& rule) {
    SentrelUtils* utils = SentrelUtils::GetInstance();
    const std::string copy = rule.backup_path + rule.real_path;
    if (!utils->DoRsyncRemote(copy, RSYNC_BACKUP)) {
        SDK_LOG(ModuleLogger(), PRIO_ERROR, "Backup (%s) to remote faild.", copy);
        SentrelStatus::Instance().NoteFailure(rule.real_path,
                                              "remote backup: " + utils->LastCopyError());
        return false;
    }
    SDK_LOG(ModuleLogger(), PRIO_TRACE, "Backup (%s) to remote success.", copy);
    SentrelStatus::Instance().NoteRemoteBackup(rule.real_path);
    return true;
}

}  // namespace Engine
