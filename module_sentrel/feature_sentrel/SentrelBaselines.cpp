// What the task does with comparisons with the approved state. It must not compare (BaselineCheck
// does). Inotify task's thread.
#define SDK_LOG_FILE "SentrelInotifyTask.cpp"
#include <module_filenotify/FileNotifyMessage.h>
#include <sdk/files/PathUtils.h>
#include <sdk/log/Log.h>
#include <sys/inotify.h>
#include <sys/stat.h>

#include <chrono>
#include <ctime>
#include <optional>
#include <string>
#include <utility>

#include "base/ModuleLogger.h"
#include "base/WorkClock.h"
#include "feature_sentrel/SentrelInotifyTask.h"
#include "state/ModuleState.h"
#include "utils/ModuleReports.h"
#include "utils/SentrelUtils.h"

namespace Engine {

namespace {

constexpr std::size_t kMostAtOnce = 64;
constexpr std::size_t kMostHealed = 16;

using Kind = Baseline::Difference::Kind;

/// The event that could have told the difference.
std::uint32_t MaskOf(const Baseline::Difference& difference) {
    const std::uint32_t directory = difference.is_directory ? IN_ISDIR : 0U;
    switch (difference.kind) {
        case Kind::kAdded:
            return IN_CREATE | directory;
        case Kind::kMissing:
            return IN_DELETE | directory;
        case Kind::kAttributes:
            return IN_ATTRIB | directory;
        default:
            return (difference.detail == "type" ? IN_CREATE : IN_MODIFY) | directory;
    }
}

/// What lies below such an object is not listed by itself.
bool StandsForItsContent(const Baseline::Difference& difference) {
    return difference.kind == Kind::kAdded || difference.kind == Kind::kMissing ||
           difference.detail == "type";
}

}  // namespace

/// Why there is nothing to compare with; else empty.
std::string SentrelInotifyTask::BaselineProblem(const SentrelDirRule& rule) const {
    std::string obstacle = state_.baselines.Obstacle(rule);
    if (!obstacle.empty()) return obstacle;
    return state_.baselines.HasBackup(rule) ? "" : "the backup copies are gone";
}

/// Begins the comparisons that are due.
void SentrelInotifyTask::StartChecks() {
    const std::time_t time = WorkClock::Now();
    std::tm local{};
    ::localtime_r(&time, &local);
    const bool is_daily =
        local.tm_hour == check_settings_.full_check_hour && local.tm_yday != last_full_check_day_;
    if (is_daily) last_full_check_day_ = local.tm_yday;
    for (const auto& [id, rule] : watch_rules) {
        // Other obstacles wait for an operator: trying them again would read the manifest each
        // second.
        if (state_.baselines.IsBackupBack(rule)) {
            GoOnFromBaselines(state_, {rule}, check_action_, "start of the agent");
        }
        const bool is_start = state_.progress.IsChecking(rule);
        if ((!is_start && !is_daily) || being_checked_.count(id) > 0) continue;
        // What a deploy has still to put on the site would be held.
        if (state_.deploys.IsCommitting(rule)) continue;
        BaselineCheck::Job job;
        job.watch_id = id;
        job.places = state_.anchors.Of(rule).anchors;
        job.manifest = state_.baselines.Of(rule);
        job.purpose = is_start ? BaselineCheck::Purpose::kStart : BaselineCheck::Purpose::kDaily;
        if (job.places == nullptr || job.manifest == nullptr) continue;
        being_checked_.insert(id);
        check_.Start(std::move(job));
    }
}

/// True when more is to be done at once.
bool SentrelInotifyTask::TakeCheckResults() {
    StartRestore();
    const std::vector<BaselineCheck::Found> found = check_.Take(kMostAtOnce);
    for (const BaselineCheck::Found& one : found) TakeFound(one);
    while (const std::optional<BaselineCheck::Ended> ended = check_.TakeEnded()) EndCheck(*ended);
    return !found.empty();
}

void SentrelInotifyTask::TakeFound(const BaselineCheck::Found& found) {
    const auto rule = watch_rules.find(found.watch_id);
    if (rule == watch_rules.end()) return;
    const Baseline::Difference& difference = found.difference;
    std::string path = SDK::PathUtils::WithoutTrailingSlash(rule->second.real_path);
    if (!difference.path.empty()) path += "/" + difference.path;
    if (IsIgnored(rule->second, difference.is_directory ? path + "/" : path)) return;
    if (found.purpose == BaselineCheck::Purpose::kRestore) {
        return TakeToRestore(rule->second, path, found);
    }
    const bool is_held =
        check_action_ == CheckAction::kHold || state_.pauses.IsPaused(rule->second);
    if (found.purpose == BaselineCheck::Purpose::kStart && is_held) {
        state_.progress.Hold(rule->second, difference.path, StandsForItsContent(difference));
    }
    rejudge_.Judge({found.watch_id, path, MaskOf(difference), std::chrono::steady_clock::now(), 0,
                    ChangeOrigin::kReconcile},
                   undoer_.Recent());
}

void SentrelInotifyTask::EndCheck(const BaselineCheck::Ended& ended) {
    if (ended.job.purpose == BaselineCheck::Purpose::kRestore) return EndRestore(ended);
    const SentrelDirRule& rule = ended.job.places->Rule();
    being_checked_.erase(ended.job.watch_id);
    if (!ended.summary.is_complete) return;
    const bool is_start = ended.job.purpose == BaselineCheck::Purpose::kStart;
    if (is_start) state_.progress.SetChecking(rule, false);
    state_.status.NoteCheck(rule.real_path, {!is_start, ended.duration, ended.summary.objects,
                                             ended.summary.bytes, ended.found});
    SDK_LOG(ModuleLogger(), PRIO_NOTICE,
            "%s was compared with the approved state: %s of %s objects differ; %s are held.",
            rule.real_path, std::to_string(ended.found), std::to_string(ended.summary.objects),
            std::to_string(state_.progress.HeldCount(rule)));
}

/// Begins what an operator wants: the approved state back, also of what is only reported.
void SentrelInotifyTask::StartRestore() {
    const auto request = state_.requests.Take(OperatorRequest::Action::kRestore);
    if (!request) return;
    RestoreRun& run = restores_[request->id];
    for (const auto& [id, rule] : watch_rules) {
        for (const std::string& part : request->PartsOf(rule)) {
            BaselineCheck::Job job;
            job.watch_id = id;
            job.places = state_.anchors.Of(rule).anchors;
            job.manifest = state_.baselines.Of(rule);
            job.purpose = BaselineCheck::Purpose::kRestore;
            job.below = part;
            job.request = request->id;
            if (job.places == nullptr || job.manifest == nullptr) {
                run.result.message = rule.real_path + " has no approved state to restore.";
                continue;
            }
            state_.progress.Release(rule, part);
            ++run.jobs;
            check_.Start(std::move(job));
        }
    }
    if (run.jobs > 0) return;
    if (run.result.message.empty()) run.result.message = "No path of these is protected.";
    state_.requests.End(request->id, run.result);
    restores_.erase(request->id);
}

void SentrelInotifyTask::TakeToRestore(const SentrelDirRule& rule, const std::string& path,
                                       const BaselineCheck::Found& found) {
    RestoreRun& run = restores_[found.request];
    const bool is_foreign = found.difference.kind == Kind::kAdded;
    UndoResult undoing = is_foreign ? undoer_.Remove(rule, path) : undoer_.Restore(rule, path);
    ReportCopyFaults(rule, undoing);
    if (undoing.outcome == Outcome::kRestored || undoing.outcome == Outcome::kRemoved) {
        ++run.result.objects;
    } else if (undoing.outcome != Outcome::kNone) {
        run.result.message = path + ": " + OutcomeText(undoing.outcome) + ".";
    }
}

void SentrelInotifyTask::EndRestore(const BaselineCheck::Ended& ended) {
    const auto known = restores_.find(ended.job.request);
    if (known == restores_.end()) return;
    RestoreRun& run = known->second;
    if (!ended.summary.is_complete) run.result.message = "The restore was interrupted.";
    if (--run.jobs > 0) return;
    run.result.is_done = run.result.message.empty();
    if (run.result.is_done) {
        run.result.message = std::to_string(run.result.objects) + " objects were restored.";
    }
    state_.requests.End(known->first, run.result);
    restores_.erase(known);
}

/// An object that was approved is not foreign, even when its copy is gone.
bool SentrelInotifyTask::HasLostItsCopy(const SentrelDirRule& rule, const std::string& path) {
    const RulePlaces places = state_.anchors.Held(rule);
    std::string_view below;
    if (!places || !state_.baselines.IsApproved(*places.anchors, path) ||
        !places.anchors->Below(path, below)) {
        return false;
    }
    UndoResult lost;
    lost.copy_faults.push_back({SDK::PathUtils::WithoutTrailingSlash(path), "it is missing"});
    ReportCopyFaults(rule, lost);
    state_.progress.Hold(rule, SDK::PathUtils::WithoutTrailingSlash(std::string(below)), true);
    return true;
}

/// While its path pauses, a change is held instead of undone.
bool SentrelInotifyTask::IsHeldByPause(const SentrelDirRule& rule, const std::string& path) {
    if (!state_.pauses.IsPaused(rule)) return false;
    const RulePlaces places = state_.anchors.Held(rule);
    std::string_view below;
    if (!places || !places.anchors->Below(path, below)) return false;
    struct stat live {};
    struct stat copy {};
    const bool is_whole = places.anchors->StatLive(path, live) == 0 && S_ISDIR(live.st_mode) &&
                          places.anchors->StatCopy(path, copy) == 0 && S_ISDIR(copy.st_mode);
    state_.progress.Hold(rule, SDK::PathUtils::WithoutTrailingSlash(std::string(below)), !is_whole);
    return true;
}

void SentrelInotifyTask::EndPauses() {
    for (const Pauses::Pause& pause : state_.pauses.EndDue(std::time(nullptr))) {
        SDK_LOG(ModuleLogger(), PRIO_WARNING,
                "the pause of %s has ended by itself; what was changed in it stays held.",
                pause.real_path);
        ModuleReports::SendDeploy("pause ended by itself", pause.user, pause.process,
                                  pause.real_path, pause.reason, {}, 0);
    }
}

/// Alarms of what the sentry did, in parts: contents are in memory, and changes on the site must
/// not wait.
void SentrelInotifyTask::ReportShield() {
    const std::uint64_t dropped = state_.shield.TakeDropped();
    if (dropped > 0) {
        SDK_LOG(ModuleLogger(), PRIO_ERROR, "%s events of the sentry have no alarm of their own.",
                std::to_string(dropped));
    }
    if (!alarms_.IsEmpty()) return;
    for (std::size_t i = 0; i < kMostHealed; ++i) {
        std::optional<Shield::Told> told = state_.shield.Take();
        if (!told) return;
        if (!told->healed.empty()) {
            ReportHealed(std::move(*told));
            continue;
        }
        SDK_LOG(ModuleLogger(), PRIO_ERROR, "%s: %s.", told->real_path, told->trouble);
        SendAlarm({told->real_path, ALARM_MODIFY, "", "", {told->trouble, -1, true}});
    }
    Waiter().Wake();
}

/// The sentry has put the page right before anybody read it, so no event will find it changed.
void SentrelInotifyTask::ReportHealed(Shield::Told told) {
    Alarm alarm;
    alarm.file = told.healed;
    alarm.type = ALARM_MODIFY;
    alarm.note = {std::string(OutcomeText(Outcome::kRestored)) + " before it was read", -1, true};
    state_.status.CountUndone(SentrelStatus::kRestoresDone);
    std::string copy;
    for (const auto& [id, rule] : watch_rules) {
        const bool is_shown =
            rule.real_path == told.real_path && SentrelUtils::GetInstance()->diff_content &&
            !evidence_.IsSecret(alarm.file) && !alarms_.IsRepeat(alarm.file, alarm.type);
        if (is_shown) copy = rule.backup_path + alarm.file;
    }
    const bool is_needed = evidence_.is_kept || !copy.empty();
    const auto who = who_.Ask(alarm.file, std::chrono::steady_clock::now());
    alarms_.Raise(std::move(alarm), is_needed ? PinnedFile(std::move(told.content)) : PinnedFile(),
                  copy, who);
}

/// The alarm names the copy, since the object on the site has alarms of its own.
void SentrelInotifyTask::ReportCopyFaults(const SentrelDirRule& rule, const UndoResult& undoing) {
    for (const RuleBaselines::Fault& fault : undoing.copy_faults) {
        Alarm alarm;
        alarm.file = rule.backup_path + fault.path;
        alarm.type = ALARM_MODIFY;
        alarm.note = {"backup copy differs from its manifest: " + fault.what, -1, true};
        alarms_.Raise(std::move(alarm), PinnedFile(), "");
        SDK_LOG(ModuleLogger(), PRIO_ERROR,
                "the backup copy of %s differs from its manifest (%s) and is not used.", fault.path,
                fault.what);
    }
}

/// A held object that is changed again is judged against the approved state: only what was changed
/// while nobody watched is held.
void SentrelInotifyTask::ReleaseIfChanged(const FileNotifyMessage& msg) {
    const auto found = watch_rules.find(msg.GetWatchFile());
    if (found == watch_rules.end()) return;
    const SentrelDirRule& rule = found->second;
    const std::string path = SDK::PathUtils::WithoutTrailingSlash(msg.GetEventFilePath());
    std::string_view below;
    struct stat live {};
    if (!state_.progress.IsHeld(rule, path)) return;
    const RulePlaces places = state_.anchors.Held(rule);
    const std::optional<std::timespec> begun = state_.progress.Begin(rule);
    if (!places || !begun || !places.anchors->Below(path, below) || below.empty() ||
        places.anchors->StatLive(path, live) != 0 || live.st_ctim.tv_sec <= begun->tv_sec) {
        return;
    }
    state_.progress.Release(rule, std::string(below));
}

}  // namespace Engine
