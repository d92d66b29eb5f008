// Owns the changes that are to be judged again: those that wait for the first backup, those whose
// undoing failed, and the trees of which some could not be kept. It must not judge them itself
// (SentrelEvents.cpp); before a backup is complete, what its copy lacks may just not have been
// copied yet. Inotify task's thread.
#include <BackupProgress.h>
#include <CommandLineText.h>
#include <ProtectedWay.h>
#include <SentrelInotifyTask.h>
#include <SentrelStatus.h>
#include <SentrelUtils.h>
#include <module_filenotify/FileNotifyMessage.h>
#include <sdk/Log.h>
#include <sys/inotify.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <ctime>
#include <utility>

namespace Engine {

namespace {

constexpr int kMostAtOnce = 128;
constexpr std::chrono::milliseconds kSweepSlice{50};
// What fails now, such as a full disk, mostly fails for every path.
constexpr std::chrono::seconds kRestAfterFailure{1};
// A change is read from the kernel so much later than it happened, at most.
constexpr std::chrono::seconds kReadingDelay{2};
// Names that come and go all the time must not keep the agent comparing: a twentieth of the time.
constexpr std::chrono::seconds kLeastRest{1};
constexpr int kRestPerSweep = 20;

}  // namespace

bool SentrelInotifyTask::AwaitsBackup(const SentrelDirRule& rule) {
    return SentrelUtils::GetInstance()->MakesLocalBackup() &&
           !BackupProgress::Instance().IsComplete(rule);
}

void SentrelInotifyTask::Defer(const std::string& path) {
    SentrelStatus& status = SentrelStatus::Instance();
    if (deferred_.Keep(current_event_.source)) {
        status.Count(SentrelStatus::kEventsDeferred);
        SDK_LOG(ModuleLogger(), PRIO_DEBUG, "%s waits for the first backup to be complete.", path);
        return;
    }
    status.Count(SentrelStatus::kDeferredOverflows);
    SweepLater(current_event_.source.watch_id);
}

void SentrelInotifyTask::KeepFailed(const DeferredEvent& source, const std::string& path,
                                    const std::string& target) {
    // A name that the command line cannot carry never gets further.
    if (!WhatBreaksPath(target).empty()) return;
    judging_failed_ = true;
    switch (failed_.Keep({source, tries_ + 1}, FailedEvents::Clock::now())) {
        case FailedEvents::Kept::kYes:
            SDK_LOG(ModuleLogger(), PRIO_DEBUG, "%s is judged again later.", path);
            return;
        case FailedEvents::Kept::kGivenUp:
            SentrelStatus::Instance().Count(SentrelStatus::kRetriesGivenUp);
            SDK_LOG(ModuleLogger(), PRIO_WARNING, "%s cannot be put right and is given up.", path);
            return;
        case FailedEvents::Kept::kNoRoom:
            SweepLater(source.watch_id);
            return;
    }
}

void SentrelInotifyTask::SweepLater(const std::string& watch_id) {
    if (std::exchange(to_sweep_[watch_id].everything, true)) return;
    SDK_LOG(ModuleLogger(), PRIO_WARNING,
            "too many changes of %s wait; all of it is compared with its copy later.", watch_id);
}

/// A change that was made through one name of an object is a change of all its names, and nothing
/// tells of the others.
void SentrelInotifyTask::NoteOtherNames(const std::string& path) {
    struct stat info {};
    if (judging_swept_ || ::lstat(WithoutTrailingSlash(path).c_str(), &info) != 0) return;
    if (S_ISDIR(info.st_mode) || info.st_nlink < 2) return;
    to_sweep_[current_event_.source.watch_id].objects.emplace(info.st_dev, info.st_ino);
}

/// What was changed through a name that is gone by now may be changed at other names as well; which
/// object that was cannot be told any more, but a change leaves its time. What went because it was
/// put right after the change had been looked at then.
void SentrelInotifyTask::NoteVanished(std::uint32_t mask, const std::string& path) {
    struct stat info {};
    const auto read_time = current_event_.source.read_time;
    if ((mask & (IN_MODIFY | IN_ATTRIB)) == 0 || judging_swept_) return;
    if (read_time == decltype(read_time)() || own_restores_.IsLaterThan(path, read_time)) return;
    if (::lstat(WithoutTrailingSlash(path).c_str(), &info) == 0 || errno != ENOENT) return;
    const auto age = std::chrono::duration_cast<std::chrono::seconds>(
        std::chrono::steady_clock::now() - read_time + kReadingDelay);
    SweepScope& scope = to_sweep_[current_event_.source.watch_id];
    scope.changed_since =
        std::min<std::time_t>(scope.changed_since, std::time(nullptr) - age.count());
}

void SentrelInotifyTask::JudgeAgain(const DeferredEvent& event) {
    judging_failed_ = false;
    FileNotifyMessage msg(event.watch_id, event.path, "", event.raw_mask, event.read_time);
    FileNotifyMessageAction(&msg);
    SendPendingAlarm();  // its outcome counts for this judgement
}

void SentrelInotifyTask::HandleBacklog(FailedEvents::Clock::time_point now) {
    if (!SentrelUtils::GetInstance()->is_run) return;
    const bool more_deferred = HandleDeferredEvents();
    const bool more_failed = HandleFailedEvents(now);
    const bool more_to_sweep = SweepTrees(now);
    SentrelStatus::Instance().PublishBacklog(deferred_.Size(), failed_.Size(),
                                             to_sweep_.size() + (sweep_ ? 1 : 0));
    // Messages have their turn, but nobody waits for one.
    if (more_deferred || more_failed || more_to_sweep) Waiter().Wake();
}

bool SentrelInotifyTask::HandleDeferredEvents() {
    if (deferred_.Size() == 0) return false;
    const auto is_ready = [this](const std::string& watch_id) {
        const auto rule = watch_rules.find(watch_id);
        return rule == watch_rules.end() || !AwaitsBackup(rule->second);
    };
    for (int done = 0; done < kMostAtOnce && !ShouldYield(); ++done) {
        const std::vector<DeferredEvent> oldest = deferred_.Take(1, is_ready);
        if (oldest.empty()) return false;
        JudgeAgain(oldest.front());
    }
    return true;
}

bool SentrelInotifyTask::HandleFailedEvents(FailedEvents::Clock::time_point now) {
    if (now < retries_rest_until_) return false;
    for (int done = 0; done < kMostAtOnce && !ShouldYield(); ++done) {
        const std::optional<FailedEvents::Failed> due = failed_.TakeDue(now);
        if (!due) return false;
        SentrelStatus::Instance().Count(SentrelStatus::kRetries);
        tries_ = due->tries;
        JudgeAgain(due->event);
        tries_ = 0;
        if (!judging_failed_) continue;
        retries_rest_until_ = now + kRestAfterFailure;
        return false;
    }
    return true;
}

/// True when there is more to be done at once.
bool SentrelInotifyTask::SweepTrees(std::chrono::steady_clock::time_point now) {
    if (failed_.IsHalfFull()) return false;  // what the sweep finds would fail, too
    // What was found before a pause is void.
    if (sweep_ && !MaySweep(sweeping_)) EndSweep(false);
    if (!sweep_) {
        const auto may_begin = [&](const auto& one) {
            return MaySweep(one.first) && (one.second.IsUrgent() || now >= sweeps_rest_until_);
        };
        const auto ready = std::find_if(to_sweep_.begin(), to_sweep_.end(), may_begin);
        if (ready == to_sweep_.end()) return false;
        BeginSweep(ready->first);
    }
    const auto until = std::chrono::steady_clock::now() + kSweepSlice;
    while (!ShouldYield() && std::chrono::steady_clock::now() < until) {
        if (sweep_->Step(until)) continue;
        EndSweep(true);
        break;
    }
    return true;
}

bool SentrelInotifyTask::MaySweep(const std::string& watch_id) const {
    const auto rule = watch_rules.find(watch_id);
    return rule != watch_rules.end() && !AwaitsBackup(rule->second);
}

void SentrelInotifyTask::BeginSweep(const std::string& watch_id) {
    const SentrelDirRule& rule = watch_rules.at(watch_id);
    const auto ignored = [this, rule](const std::string& path) {
        return IsIgnored(rule, RulePath(rule), path);
    };
    const auto judge = [this, watch_id](const std::string& path, std::uint32_t raw_mask) {
        if (!IsWithin(sweep_scope_, path)) return;
        judging_swept_ = true;
        JudgeAgain({watch_id, path, raw_mask, std::chrono::steady_clock::now()});
        judging_swept_ = false;
    };
    sweeping_ = watch_id;
    sweep_begun_ = std::chrono::steady_clock::now();
    sweep_.emplace(rule, ignored, judge);
    sweep_scope_ = std::move(to_sweep_[sweeping_]);
    to_sweep_.erase(sweeping_);
}

void SentrelInotifyTask::EndSweep(bool is_complete) {
    sweep_.reset();
    const auto now = std::chrono::steady_clock::now();
    sweeps_rest_until_ = now + std::max<std::chrono::steady_clock::duration>(
                                   kLeastRest, kRestPerSweep * (now - sweep_begun_));
    if (!is_complete) {
        SweepScope& waiting = to_sweep_[sweeping_];
        waiting.everything = waiting.everything || sweep_scope_.everything;
        waiting.objects.merge(sweep_scope_.objects);
        waiting.changed_since = std::min(waiting.changed_since, sweep_scope_.changed_since);
    } else if (sweep_scope_.everything) {
        SDK_LOG(ModuleLogger(), PRIO_NOTICE, "%s has been compared with its copy.", sweeping_);
        SentrelStatus::Instance().Count(SentrelStatus::kTreesCompared);
    }
}

bool SentrelInotifyTask::IsWithin(const SweepScope& scope, const std::string& path) {
    struct stat info {};
    if (scope.everything) return true;
    return ::lstat(WithoutTrailingSlash(path).c_str(), &info) == 0 &&
           (info.st_ctime >= scope.changed_since ||
            scope.objects.count({info.st_dev, info.st_ino}) > 0);
}

void SentrelInotifyTask::ForgetBacklog() {
    deferred_.Clear();
    failed_.Clear();
    to_sweep_.clear();
    sweep_.reset();
    retries_rest_until_ = {};
    sweeps_rest_until_ = {};
    SentrelStatus::Instance().PublishBacklog(0, 0, 0);
}

}  // namespace Engine
