// Decides what is copied when. It owns nothing: SentrelUtils has the two pending flags, and
// BackupProgress what is copied in this round. It must not change the protected paths (the inotify
// task restores). Task's thread; a waiting policy interrupts the running copy.
#include "feature_sentrel/SentrelBackupTask.h"

#include <sdk/log/Log.h>
#include <sdk/restore/AttributeComparison.h>
#include <sdk/time/TimeUtils.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <optional>
#include <utility>

#include "base/ModuleLogger.h"
#include "feature_sentrel/backup/BackupDirectory.h"
#include "feature_sentrel/backup/CopyComparison.h"
#include "feature_sentrel/backup/OpenReport.h"
#include "state/ModuleState.h"
#include "status/WatchList.h"
#include "utils/ModuleReports.h"
#include "utils/SentrelUtils.h"
#include "utils/TaskSteps.h"

namespace Engine {

namespace {

constexpr const char* kTaskId = "sentrel_backup_task";
constexpr unsigned int kQueueCapacity = 1024;
constexpr int kLongestLookMs = 50;  // a look at the watches takes some microseconds
constexpr std::int64_t kLongestTrimMs = 200;
constexpr std::chrono::seconds kAppearLimit{10};
constexpr std::chrono::seconds kWalkLimit{120};

std::string NamesOfKinds(unsigned kinds) {
    std::string names;
    for (const auto& [kind, name] : {std::pair{SDK::kUserAttributes, "user"},
                                     {SDK::kTrustedAttributes, "trusted"},
                                     {SDK::kSecurityAttributes, "security"},
                                     {SDK::kAcls, "ACLs"}}) {
        if ((kinds & kind) != 0) names += (names.empty() ? "" : ", ") + std::string(name);
    }
    return names;
}

void YieldBeforePass() {
    static unsigned long last_cpu_tick = 0;
    YieldCpu(last_cpu_tick, __FILE__, __LINE__, kTaskId);
}

void YieldInPass() {
    static unsigned long last_cpu_tick = 0;
    YieldCpu(last_cpu_tick, __FILE__, __LINE__, kTaskId);
}

/// In words; empty where every mount is normal.
std::string UnusualMount(const AnchoredRule& rule) {
    const std::vector<MountTable::Difference> mounts = rule.UnusualMounts();
    return mounts.empty() ? "" : mounts.front().text;
}

/// Without parts everything is meant.
DeployTaking::Parts Both(DeployTaking::Parts one, DeployTaking::Parts other) {
    if (!one || !other) return {};
    one->insert(one->end(), other->begin(), other->end());
    return one;
}

}  // namespace

SentrelBackupTask::SentrelBackupTask(ModuleState& state)
    : Framework::Task(kTaskId, "sentrel_feature", Framework::TaskCondition::kPeriodic,
                      kQueueCapacity),
      state_(state),
      deploys_(state, {[this] { return ShouldYield(); },
                       [this](const SentrelDirRule& rule, const Parts& parts) {
                           return CommitBaseline(rule, parts);
                       }}) {}

bool SentrelBackupTask::Init() {
    SDK_LOG(ModuleLogger(), PRIO_INFORMATION, "Task(%s) init.", Id());
    PrepareRsyncForTask(state_.launcher);
    return Framework::Task::Init();
}

bool SentrelBackupTask::UnInit() {
    const bool result = Framework::Task::UnInit();
    SDK_LOG(ModuleLogger(), PRIO_INFORMATION, "Task(%s) uninit.", Id());
    return result;
}

int SentrelBackupTask::Run() {
    RetryOpenObjects();
    CommitInterrupted();
    HandleAcceptance();
    HandleRollback();
    TrimReplaced();
    SentrelUtils* utils = SentrelUtils::GetInstance();
    deploys_.Work(utils->dir_rules);
    const std::uint64_t round = state_.progress.Round();
    if (!utils->MakesLocalBackup()) {
        SDK_LOG(ModuleLogger(), PRIO_TRACE, "remote backup not local.");
        return 0;
    }
    if (!utils->local_backup_pending && !utils->remote_backup_pending) {
        SDK_LOG(ModuleLogger(), PRIO_TRACE, "all backup ok, no need backup again.");
        return 0;
    }
    YieldBeforePass();
    state_.releases.Apply(utils->dir_rules);
    std::uint64_t local_ok = 0;
    std::uint64_t remote_ok = 0;
    for (const SentrelDirRule& rule : utils->dir_rules) {
        YieldInPass();
        if (utils->local_backup_pending && IsCopied(rule, local_ok)) ++local_ok;
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

/// Not when a pause of protection ended while the pass was made: the copies lack the updates of the
/// pause, and the gate, under the same lock, has asked for them anew. Nor when a release link was
/// followed meanwhile.
void SentrelBackupTask::ClearPending(std::atomic<bool>& pending, std::uint64_t round) {
    const Poco::FastMutex::ScopedLock lock(SentrelUtils::GetInstance()->mutex);
    if (state_.progress.Round() == round && !state_.releases.IsWaiting()) pending = false;
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

/// A rule is copied once in a round: when another rule fails, a repeated copy would make tampering
/// the good state of this one.
bool SentrelBackupTask::IsCopied(const SentrelDirRule& rule, unsigned long succeeded_before) {
    return state_.progress.IsComplete(rule) ||
           (AwaitWatch(rule) && BackUpLocally(rule, succeeded_before));
}

std::string SentrelBackupTask::WhatHinders(const SentrelDirRule& rule) {
    std::string unsafe =
        BackupDirectory::Prepare(rule.backup_path, SentrelUtils::GetInstance()->dir_rules);
    if (!unsafe.empty()) return unsafe;
    // The path ends in "/", so rsync would follow a link in the directory's place and take what it
    // leads to for the good state.
    std::string unapproved = state_.baselines.Obstacle(rule);
    if (!unapproved.empty()) return unapproved;
    const RulePlaces places = state_.anchors.Of(rule);
    if (!places) return places.problem;
    std::string mount = UnusualMount(*places.anchors);
    if (!mount.empty()) return mount;
    struct stat info {};
    const bool replaced = !rule.is_file && places.anchors->StatLive(rule.real_path, info) == 0 &&
                          S_ISLNK(info.st_mode);
    return replaced ? "a symbolic link stands in its place" : "";
}

bool SentrelBackupTask::BackUpLocally(const SentrelDirRule& rule, unsigned long succeeded_before) {
    SentrelUtils* utils = SentrelUtils::GetInstance();
    const std::uint64_t round = state_.progress.BeginCopy();
    const std::string hindrance = WhatHinders(rule);
    if (!hindrance.empty() ||
        !utils->DoRsyncLocal(rule.real_path, rule.backup_path, rule.ignored_postfix,
                             rule.ignored_subdir, RSYNC_BACKUP)) {
        SDK_LOG(ModuleLogger(), PRIO_ERROR, "Backup (%s) to (%s) faild.", rule.real_path,
                rule.backup_path);
        state_.status.NoteFailure(
            rule.real_path,
            "local backup: " + (hindrance.empty() ? utils->LastCopyError() : hindrance));
        return hindrance.empty() && CompleteByObjects(rule, round);
    }
    SDK_LOG(ModuleLogger(), PRIO_TRACE, "Backup (%s) to (%s) success num(%lu).", rule.real_path,
            rule.backup_path, succeeded_before + 1);
    state_.status.NoteLocalBackup(rule.real_path);
    // What was mounted meanwhile may be in the copy.
    const RulePlaces places = state_.anchors.Of(rule);
    if (!places || !UnusualMount(*places.anchors).empty()) return false;
    // A copy that began before the last pause of protection lacks the changes of the pause.
    if (!state_.progress.NoteComplete(rule, round, {}, AttributeKinds(rule))) return false;
    OpenReport(state_.progress, state_.status).Publish(rule);
    CommitBaseline(rule);
    return true;
}

/// The kinds of extended attributes that the rule's copies have. Others are not compared.
unsigned SentrelBackupTask::AttributeKinds(const SentrelDirRule& rule) {
    const RulePlaces places = state_.anchors.Held(rule);
    if (!places) return SDK::kNoAttributes;
    unsigned kinds = SDK::AttributeComparison::TakenIn(places.anchors->OpenScratch().Get());
    if (!SentrelUtils::GetInstance()->Rsync().KeepsAcls()) kinds &= ~unsigned{SDK::kAcls};
    const std::string left_out = NamesOfKinds(SDK::kAllAttributes & ~kinds);
    state_.status.NoteAttributesLeftOut(rule.real_path, left_out);
    if (!left_out.empty()) {
        SDK_LOG(ModuleLogger(), PRIO_NOTICE,
                "%s: the copies cannot keep these extended attributes, which are not compared: %s.",
                rule.real_path, left_out);
    }
    return kinds;
}

/// Lists the copies, which are what was approved from now on. An interrupted listing begins again
/// with the next pass.
bool SentrelBackupTask::CommitBaseline(const SentrelDirRule& rule, Parts parts,
                                       bool is_copy_of_site) {
    const auto waiting = uncommitted_.find(rule.real_path);
    if (waiting != uncommitted_.end()) {
        parts = Both(std::move(parts), std::move(waiting->second));
        uncommitted_.erase(waiting);
    }
    const RulePlaces places = state_.anchors.Of(rule);
    const std::optional<std::timespec> begin = state_.progress.Begin(rule);
    if (!places || !begin) return false;
    RuleBaselines::Commitment commitment;
    commitment.begun = *begin;
    for (const auto& entry : state_.progress.OpenEntries(rule, OpenObjects::kCapacity)) {
        commitment.open.push_back(entry.below);
    }
    commitment.attribute_kinds = state_.progress.AttributeKinds(rule);
    commitment.is_copy_of_site = is_copy_of_site;
    commitment.parts = parts;
    commitment.is_over = [this] { return ShouldYield(); };
    std::string problem;
    const std::int64_t start = SDK::TimeUtils::GetMonotonicMs();
    switch (state_.baselines.Commit(*places.anchors, std::move(commitment), problem)) {
        case RuleBaselines::Committed::kYes:
            SDK_LOG(ModuleLogger(), PRIO_NOTICE, "the state of %s is approved, listed in %d ms.",
                    rule.real_path, static_cast<int>(SDK::TimeUtils::GetMonotonicMs() - start));
            is_trimmed_ = false;
            RequestPush();
            return true;
        case RuleBaselines::Committed::kInterrupted:
            uncommitted_[rule.real_path] = std::move(parts);
            break;
        case RuleBaselines::Committed::kFailed:
            SDK_LOG(ModuleLogger(), PRIO_WARNING, "the manifest of %s was not written: %s.",
                    rule.real_path, problem);
            state_.status.NoteFailure(rule.real_path, "manifest: " + problem);
            break;
    }
    return false;
}

void SentrelBackupTask::CommitInterrupted() {
    const std::map<std::string, Parts> waiting = uncommitted_;
    for (const SentrelDirRule& rule : SentrelUtils::GetInstance()->dir_rules) {
        const auto one = waiting.find(rule.real_path);
        if (one != waiting.end() && state_.progress.IsComplete(rule)) {
            CommitBaseline(rule, one->second);
        }
    }
}

/// Some at a time, with pauses: a directory may hold a whole site.
void SentrelBackupTask::TrimReplaced() {
    state_.baselines.Lent().DropExpired();
    if (is_trimmed_) return;
    is_trimmed_ = true;
    for (const SentrelDirRule& rule : SentrelUtils::GetInstance()->dir_rules) {
        if (ShouldYield()) is_trimmed_ = false;
        const RulePlaces places = state_.anchors.Held(rule);
        if (!is_trimmed_ || !places) continue;
        is_trimmed_ = state_.baselines.TrimReplaced(*places.anchors, kLongestTrimMs);
    }
}

bool SentrelBackupTask::CompleteByObjects(const SentrelDirRule& rule, std::uint64_t round) {
    BackupProgress& progress = state_.progress;
    const std::optional<std::timespec> begin = progress.Begin(rule);
    const RulePlaces places = state_.anchors.Of(rule);
    if (ShouldYield() || !begin || !places) return false;
    ReplacedCopies replaced = state_.baselines.Replaced(*places.anchors);
    CopyComparison::Result result = CopyComparison(state_.anchors, rule, replaced, *begin, [this] {
                                        return ShouldYield();
                                    }).Run();
    if (result.outcome != CopyComparison::Outcome::kCompared) return false;
    SDK_LOG(ModuleLogger(), PRIO_NOTICE,
            "%s has been compared with its copy: %lu objects copied one by one, %lu left open.",
            rule.real_path, static_cast<unsigned long>(result.copied),
            static_cast<unsigned long>(result.open.Size()));
    const bool has_open = !result.open.IsEmpty();
    if (!progress.NoteComplete(rule, round, std::move(result.open), AttributeKinds(rule))) {
        return false;
    }
    state_.status.NoteLocalBackup(rule.real_path);
    OpenReport(state_.progress, state_.status).Publish(rule);
    if (has_open) OpenReport(state_.progress, state_.status).Alarm(rule, *this);
    CommitBaseline(rule);
    return true;
}

void SentrelBackupTask::RetryOpenObjects() {
    SentrelUtils* utils = SentrelUtils::GetInstance();
    if (!utils->is_run || !utils->MakesLocalBackup()) return;
    for (const SentrelDirRule& rule : utils->dir_rules) {
        if (state_.progress.TakeDue(rule, std::chrono::steady_clock::now())) {
            RetryOpenObjects(rule);
        }
    }
}

void SentrelBackupTask::RetryOpenObjects(const SentrelDirRule& rule) {
    BackupProgress& progress = state_.progress;
    const std::uint64_t round = progress.Round();
    const std::optional<std::timespec> begin = progress.Begin(rule);
    if (!begin || !WhatHinders(rule).empty()) return;
    const RulePlaces places = state_.anchors.Held(rule);
    if (!places) return;
    ReplacedCopies replaced = state_.baselines.Replaced(*places.anchors);
    std::size_t copied = 0;
    std::vector<std::string> parts;
    for (const auto& entry : progress.OpenEntries(rule, OpenObjects::kCapacity)) {
        if (ShouldYield()) break;
        CopyComparison comparison(state_.anchors, rule, replaced, *begin,
                                  [this] { return ShouldYield(); });
        const CopyComparison::Result result = comparison.RunAgain(entry.below);
        if (result.outcome != CopyComparison::Outcome::kCompared) continue;
        copied += result.copied;
        parts.push_back(entry.below);
        progress.NoteTried(rule, round, entry.below, result.open);
    }
    OpenReport(state_.progress, state_.status).Publish(rule);
    if (copied == 0) return;
    SDK_LOG(ModuleLogger(), PRIO_NOTICE, "%s: %lu open objects have been copied now.",
            rule.real_path, static_cast<unsigned long>(copied));
    CommitBaseline(rule, std::move(parts));
    if (progress.Round() == round) RequestPush();
}

/// The server's copy lacks what has just been copied or approved.
void SentrelBackupTask::RequestPush() {
    SentrelUtils* utils = SentrelUtils::GetInstance();
    const Poco::FastMutex::ScopedLock lock(utils->mutex);
    if (utils->backup_type == kLocalAndRemote) utils->remote_backup_pending = true;
}

bool SentrelBackupTask::PushToServer(const SentrelDirRule& rule) {
    SentrelUtils* utils = SentrelUtils::GetInstance();
    const std::string copy = rule.backup_path + rule.real_path;
    if (!utils->DoRsyncRemote(copy, RSYNC_BACKUP)) {
        SDK_LOG(ModuleLogger(), PRIO_ERROR, "Backup (%s) to remote faild.", copy);
        state_.status.NoteFailure(rule.real_path, "remote backup: " + utils->LastCopyError());
        return false;
    }
    SDK_LOG(ModuleLogger(), PRIO_TRACE, "Backup (%s) to remote success.", copy);
    state_.status.NoteRemoteBackup(rule.real_path);
    return true;
}

}  // namespace Engine
