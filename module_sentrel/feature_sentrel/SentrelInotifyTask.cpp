// Owns the watches of the protected paths, from Init to UnInit, and the objects that handle a
// change. It must not read inotify (the file-notify module does) nor judge changes
// (SentrelEvents.cpp). Task's own thread; watch requests go to the file-notify task, which frees
// them.
#include "feature_sentrel/SentrelInotifyTask.h"

#include <framework/ConfigManager.h>
#include <module_filenotify/FileNotifyMessage.h>
#include <module_filenotify/FileNotifyOpt.h>
#include <module_filenotify/FileNotifyWatchMessage.h>
#include <sdk/files/PathUtils.h>
#include <sdk/log/Log.h>
#include <sys/inotify.h>

#include <ctime>
#include <new>
#include <utility>
#include <vector>

#include "base/ModuleLogger.h"
#include "base/WorkClock.h"
#include "state/ModuleState.h"
#include "utils/SentrelUtils.h"
#include "utils/TaskSteps.h"

namespace Engine {

namespace {

constexpr const char* kTaskId = "sentrel_inotify_task";
constexpr unsigned int kQueueCapacity = 1024;
constexpr int kWaitMs = 1000;
constexpr int kMaxEventSources = 10;
constexpr std::size_t kMaxMessagesPerCycle = 128;
constexpr int kWatchTimeoutMs = 1000;
constexpr int kWatchRetries = 2;
constexpr std::chrono::seconds kLookAtPlaces{1};
constexpr int kLooksUntilAlarm = 2;  // a first backup may still correct its folder's mode

const std::vector<unsigned int>& WatchEventMasks() {
    static const std::vector<unsigned int> watch_event_masks = {
        IN_CREATE,      IN_MODIFY,   IN_DELETE, IN_ATTRIB, IN_MOVED_FROM | IN_MOVED_TO,
        IN_DELETE_SELF, IN_MOVE_SELF};
    return watch_event_masks;
}

/// What conf/agent.json says.
std::chrono::seconds ReconcilePeriod() {
    const Json::Value value =
        Framework::ConfigManager::GetInstance().Section("sentrel")["reconcile_seconds"];
    if (value.isNull()) return Reconciler::kDefaultPeriod;
    if (value.isUInt()) return std::chrono::seconds(value.asUInt());
    SDK_LOG(ModuleLogger(), PRIO_WARNING,
            "conf/agent.json: /sentrel/reconcile_seconds: must be a number of seconds, or 0; %s is "
            "used.",
            std::to_string(Reconciler::kDefaultPeriod.count()));
    return Reconciler::kDefaultPeriod;
}

}  // namespace

SentrelInotifyTask::SentrelInotifyTask(ModuleState& state, std::size_t backlog)
    : Framework::Task(kTaskId, "sentrel_feature", Framework::TaskCondition::kResident,
                      kQueueCapacity),
      state_(state),
      alarms_(
          alarm_cache, [this](const Alarm& alarm) { SendAlarm(alarm); },
          [this] { Waiter().Wake(); }),
      who_(WhoAsker::ToSentry, [this] { Waiter().Wake(); }),
      undoer_(state),
      deploys_(state, undoer_,
               [this](const std::string& watch_id, const std::string& path) {
                   rejudge_.Judge({watch_id, path, IN_MODIFY, std::chrono::steady_clock::now(), 0,
                                   ChangeOrigin::kReconcile},
                                  undoer_.Recent());
               }),
      rejudge_(RejudgeOwner(), state, backlog),
      reconciler_(ReconcilerOwner()),
      large_files_([this] { Waiter().Wake(); }),
      check_([this] { Waiter().Wake(); }) {}

Rejudge::Owner SentrelInotifyTask::RejudgeOwner() {
    Rejudge::Owner owner;
    owner.judge = [this](const FileChange& change) {
        FileNotifyMessage msg(change.watch_id, change.path, "", change.raw_mask, change.read_time);
        const bool is_told = change.origin == ChangeOrigin::kGivenUp;
        return IsLeftOut(change.path) ? JudgeLeftOut(msg, is_told) : Judge(msg, is_told);
    };
    owner.rule = [this](const std::string& watch_id) -> const SentrelDirRule* {
        const auto found = watch_rules.find(watch_id);
        return found == watch_rules.end() ? nullptr : &found->second;
    };
    owner.ignored = [this](const SentrelDirRule& rule, const std::string& path) {
        return IsIgnored(rule, path);
    };
    owner.should_yield = [this] { return ShouldYield(); };
    return owner;
}

Reconciler::Owner SentrelInotifyTask::ReconcilerOwner() {
    Reconciler::Owner owner{watch_rules};
    owner.places = [this](const SentrelDirRule& rule) { return state_.anchors.Of(rule).anchors; };
    owner.basis = [this](const SentrelDirRule& rule) { return BasisOf(rule); };
    owner.ignored = [this](const SentrelDirRule& rule, const std::string& path) {
        return IsIgnored(rule, path);
    };
    owner.judge = [this](const FileChange& change) {
        return rejudge_.Judge(change, undoer_.Recent());
    };
    owner.should_pause = [this] { return ShouldYield() || QueueLength() > 0; };
    owner.begun = [this](const std::string& watch_id) { rejudge_.RetryGivenUp(watch_id); };
    owner.ended = [this](const Reconciler::Look& look) { NoteLook(look); };
    return owner;
}

/// Without a complete local copy there is nothing to compare with.
std::optional<Reconciler::Basis> SentrelInotifyTask::BasisOf(const SentrelDirRule& rule) const {
    const std::optional<std::timespec> begun = state_.progress.Begin(rule);
    if (!SentrelUtils::GetInstance()->MakesLocalBackup() || !begun ||
        !state_.progress.IsComplete(rule) || state_.progress.IsChecking(rule) ||
        state_.deploys.IsCommitting(rule)) {
        return std::nullopt;
    }
    return Reconciler::Basis{state_.progress.Round(), *begun, state_.progress.AttributeKinds(rule)};
}

void SentrelInotifyTask::NoteLook(const Reconciler::Look& look) {
    state_.status.NoteLook(look.real_path, look.duration, look.seen, look.found);
    if (look.found == 0) return;
    SDK_LOG(ModuleLogger(), PRIO_NOTICE,
            "%s was looked through: %s of %s objects had changed without an event.", look.real_path,
            std::to_string(look.found), std::to_string(look.seen));
}

bool SentrelInotifyTask::Init() {
    reconciler_.SetPeriod(ReconcilePeriod());
    check_settings_ = CheckSettings::Read();
    evidence_ = EvidenceSettings::Read();
    alarms_.KeepIn(evidence_.is_kept ? std::make_unique<Evidence::EvidenceStore>(
                                           EvidenceSettings::Directory(), evidence_.limits)
                                     : nullptr);
    check_action_ = check_settings_.at_start;
    release_mode_ = ReleaseLinks::ConfiguredMode();
    SDK_LOG(ModuleLogger(), PRIO_INFORMATION, "Task(%s) init.", Id());
    WatchMounts();
    AddFileNotifyWatches();
    PrepareRsyncForTask(state_.launcher);
    return Framework::Task::Init();
}

bool SentrelInotifyTask::UnInit() {
    RmvFileNotifyWatches();
    check_.Stop();
    being_checked_.clear();
    restores_.clear();
    deploys_.Forget();
    state_.requests.FailAll("The protection ended.");
    who_.Watch({});
    who_.Stop();
    alarms_.Finish();
    DeliverMerged(alarms_.TakeAllMerged());
    watch_rules.clear();
    rejudge_.Forget();
    reconciler_.Forget();
    large_files_.Stop();
    findings_.clear();
    if (mount_events_.IsOpen()) Waiter().RemoveSource(mount_events_.Get());
    mount_events_.Reset();
    state_.status.ClearPaths();
    const bool result = Framework::Task::UnInit();
    SDK_LOG(ModuleLogger(), PRIO_INFORMATION, "Task(%s) uninit.", Id());
    return result;
}

int SentrelInotifyTask::Run() {
    static unsigned long last_cpu_tick = 0;
    CheckDisableTime();
    YieldCpu(last_cpu_tick, __FILE__, __LINE__, kTaskId);
    CheckPlaces();
    HandleBacklog(RetryQueue::Clock::now());
    ReportShield();
    if (Waiter().WaitAndHandleEvent(kWaitMs, kMaxEventSources) == -1) {
        BulkConsumeMsg(kMaxMessagesPerCycle);
    }
    SendAlarms();
    DeliverMerged(alarms_.TakeMerged());
    CleanOldMessageFromCache();
    return 0;
}

void SentrelInotifyTask::AddFileNotifyWatches() {
    const std::list<SentrelDirRule>& rules = SentrelUtils::GetInstance()->dir_rules;
    if (rules.empty() || state() == TASK_CANCELLING) return;
    state_.anchors.Forget();
    std::vector<SentrelStatus::ProtectedPath> paths;
    state_.anchors.Mounts().Remember();
    for (const SentrelDirRule& rule : rules) {
        state_.anchors.Of(rule);  // held from here on
        const std::string id = HandleFileNotifyWatch(false, rule.real_path);
        watch_rules.insert({id, rule});
        paths.push_back({id, rule});
    }
    state_.status.PublishPaths(std::move(paths));
    who_.Watch(rules);
    TakeMountsForNormal();
}

void SentrelInotifyTask::RmvFileNotifyWatches() {
    for (const auto& [id, rule] : watch_rules) HandleFileNotifyWatch(true, rule.real_path);
}

std::string SentrelInotifyTask::HandleFileNotifyWatch(bool remove, const std::string& path) {
    _FileNotifyOpt options;
    options.recursive = true;
    options.report_directories = true;
    options.rewatch = true;
    options.remove = remove;
    std::string id;
    SDK_LOG(ModuleLogger(), PRIO_INFORMATION, "1monitor (%b) id (%s) for rule(%s).", remove, id,
            path);
    auto* message =
        new (std::nothrow) FileNotifyWatchMessage(this, path, WatchEventMasks(), options);
    if (message != nullptr) {
        SyncSendDirectMsg("filenotify_task", message, id, kWatchTimeoutMs, kWatchRetries);
    }
    SDK_LOG(ModuleLogger(), PRIO_INFORMATION, "2monitor (%b) id (%s) for rule(%s).", remove, id,
            path);
    return id;
}

void SentrelInotifyTask::HandleBacklog(std::chrono::steady_clock::time_point now) {
    if (!SentrelUtils::GetInstance()->is_run) return;
    bool more = TakeCheckResults();
    more = deploys_.Work(watch_rules) || more;
    more = rejudge_.HandleDue(now, undoer_.Recent()) || more;
    more = reconciler_.Work(now) || more;
    JudgeLargeFiles();
    SendAlarms();
    // Messages get their turn, but the task does not wait for one.
    if (more) Waiter().Wake();
}

void SentrelInotifyTask::JudgeLargeFiles() {
    for (const FileChange& change : large_files_.TakeDifferent()) {
        rejudge_.Judge(change, undoer_.Recent());
    }
    for (const std::string& watch_id : large_files_.TakeLeftOut()) reconciler_.LookAgain(watch_id);
    state_.status.PublishLargeFiles(large_files_.Waiting(), large_files_.BytesCompared());
}

/// Reports a protected path that leads elsewhere even when nothing in it changes any more.
void SentrelInotifyTask::CheckPlaces() {
    const auto now = std::chrono::steady_clock::now();
    if (now < next_look_ || !SentrelUtils::GetInstance()->is_run) return;
    next_look_ = now + kLookAtPlaces;
    StartChecks();
    EndPauses();
    std::map<std::string, std::string> followed;
    const std::string held = WhyLinksAreHeld();
    for (const auto& [id, rule] : watch_rules) {
        const ReleaseLinks::Finding release = ReleaseLinks::Look(rule, watch_rules, held);
        CheckPlace(id, rule, release.problem);
        // A deploy that switches the link has not ended yet.
        if (!release.target.empty() && !state_.deploys.IsOpen(rule)) followed[id] = release.target;
    }
    for (const auto& [id, target] : followed) FollowRelease(id, target);
}

/// Without copies of a new target, everything in it would be foreign.
std::string SentrelInotifyTask::WhyLinksAreHeld() const {
    if (release_mode_ == ReleaseLinks::Mode::kHold) return "sentrel.release_link is \"hold\"";
    return SentrelUtils::GetInstance()->MakesLocalBackup() ? ""
                                                           : "this agent makes no local copies";
}

void SentrelInotifyTask::CheckPlace(const std::string& watch_id, const SentrelDirRule& rule,
                                    const std::string& link_problem) {
    const RulePlaces places = state_.anchors.Of(rule);
    const std::vector<MountTable::Difference> mounts =
        places ? places.anchors->UnusualMounts() : std::vector<MountTable::Difference>();
    const std::string without_baseline = BaselineProblem(rule);
    const std::string place = places ? without_baseline : places.problem;
    std::string problem = mounts.empty() ? place : mounts.front().text;
    if (problem.empty()) problem = link_problem;
    state_.status.SetProblem(rule.real_path, problem);
    Finding& known = findings_[watch_id];
    // Changes of the meantime need not wait for their next retry; retries are given up after a
    // while.
    if (problem.empty() && known.checks > 0) rejudge_.CompareAll(watch_id);
    if (problem != known.problem) known.checks = 0;
    known.problem = problem;
    known.checks = problem.empty() ? 0 : known.checks + 1;
    if (places) TellMounts(watch_id, *places.anchors, mounts);
    if (!mounts.empty() || known.checks != (places.is_mount ? 1 : kLooksUntilAlarm)) return;
    const std::string path = problem == link_problem ? rule.filepath : rule.real_path;
    SDK_LOG(ModuleLogger(), PRIO_ERROR, "%s is not protected: %s.", path, problem);
    SendAlarm({path, ALARM_MODIFY, "", "", {"not protected: " + problem, -1, true}});
}

/// The new target is protected as when a policy is applied: nothing is undone in it before its copy
/// is complete. The other rules keep their copies.
void SentrelInotifyTask::FollowRelease(const std::string& watch_id, const std::string& target) {
    const auto known = watch_rules.find(watch_id);
    SentrelDirRule rule = known->second;
    HandleFileNotifyWatch(true, rule.real_path);
    state_.anchors.Forget(rule);
    rejudge_.Forget(watch_id);
    findings_.erase(watch_id);
    watch_rules.erase(known);
    rule.real_path = target;
    state_.progress.Renew(rule);
    state_.baselines.BeginCopying(rule, "release link followed");
    state_.releases.Follow(rule.filepath, target);
    // The file-notify module asks for the exclusions of a path that it is to watch.
    watch_rules[SDK::PathUtils::WithoutTrailingSlash(target)] = rule;
    PublishRules();
    state_.anchors.Of(rule);
    HandleFileNotifyWatch(false, target);
    SentrelUtils* utils = SentrelUtils::GetInstance();
    {
        const Poco::FastMutex::ScopedLock lock(utils->mutex);
        utils->local_backup_pending = true;
        utils->remote_backup_pending = true;
    }
    SDK_LOG(ModuleLogger(), PRIO_NOTICE, "the release link %s leads to %s now and is followed.",
            rule.link, target);
    SendAlarm(
        {rule.filepath, ALARM_MODIFY, "", "", {"release link followed to " + target, -1, true}});
}

/// The settings' rules belong to the backup task once a link was followed.
std::list<SentrelDirRule> SentrelInotifyTask::RulesInForce() const {
    std::list<SentrelDirRule> rules;
    for (const auto& [id, rule] : watch_rules) rules.push_back(rule);
    return rules;
}

void SentrelInotifyTask::PublishRules() {
    const SentrelUtils* utils = SentrelUtils::GetInstance();
    std::vector<SentrelStatus::ProtectedPath> paths;
    for (const auto& [id, rule] : watch_rules) paths.push_back({id, rule});
    state_.status.SetProtectionOn(utils->monitor_only, utils->backup_type, RulesInForce());
    who_.Watch(RulesInForce());
    state_.status.PublishPaths(std::move(paths));
}

/// Each mount has one alarm, which names the place in the protected path.
void SentrelInotifyTask::TellMounts(const std::string& watch_id, const AnchoredRule& places,
                                    const std::vector<MountTable::Difference>& mounts) {
    std::set<std::string>& told = findings_[watch_id].mounts;
    std::set<std::string> present;
    for (const MountTable::Difference& mount : mounts) {
        present.insert(mount.text);
        if (told.count(mount.text) > 0) continue;
        const std::string path = places.PathOfMount(mount.point);
        SDK_LOG(ModuleLogger(), PRIO_ERROR, "%s is not protected: %s.", path, mount.text);
        SendAlarm({path, ALARM_MODIFY, "", "", {"not protected: " + mount.text, -1, true}});
    }
    told = std::move(present);
}

/// Tells a mount at once; without this, the next check of the places finds it.
void SentrelInotifyTask::WatchMounts() {
    mount_events_ = MountTable::OpenEvents();
    const auto check_now = [this] { next_look_ = {}; };
    if (!Waiter().AddSource(mount_events_.Get(), check_now,
                            Framework::EventWaiter::Readiness::kUrgent)) {
        mount_events_.Reset();
    }
}

void SentrelInotifyTask::TakeMountsForNormal() {
    MountTable& mounts = state_.anchors.Mounts();
    mounts.Remember();
    for (const auto& [id, rule] : watch_rules) {
        const RulePlaces places = state_.anchors.Of(rule);
        if (!places) continue;
        for (const std::string& point : mounts.NormalBelow(places.anchors->Place())) {
            SDK_LOG(ModuleLogger(), PRIO_NOTICE, "%s holds a mount, which is taken for normal: %s.",
                    rule.real_path, point);
        }
    }
}

bool SentrelInotifyTask::SentrelCheckWork(int weekday, int sec) {
    const SentrelUtils* utils = SentrelUtils::GetInstance();
    if (weekday < 0 || weekday >= kDaysPerWeek || sec < 0 || sec >= kMinutesPerDay) {
        SDK_LOG(ModuleLogger(), PRIO_ERROR, "check work time failse:weekday %d sec %d ", weekday,
                sec);
        return true;
    }
    return utils->weekday_enabled[static_cast<std::size_t>(weekday)] ||
           utils->minute_enabled[static_cast<std::size_t>(sec)];
}

void SentrelInotifyTask::CheckDisableTime() {
    const std::time_t now = WorkClock::Now();
    std::tm local{};
    ::localtime_r(&now, &local);
    const bool work = SentrelCheckWork(local.tm_wday, local.tm_hour * 60 + local.tm_min);
    SentrelUtils* utils = SentrelUtils::GetInstance();
    if (work == utils->is_run) return;
    const Poco::FastMutex::ScopedLock lock(utils->mutex);
    // Updates of the pause must be copied before anything is taken for foreign.
    if (work) {
        state_.progress.Restart();
        TakeMountsForNormal();
        check_action_ = check_settings_.after_pause;
        GoOnFromBaselines(state_, RulesInForce(), check_action_, "end of a pause");
    }
    utils->is_run = work;
    utils->local_backup_pending = work;
    utils->remote_backup_pending = work;
    if (work) {
        SDK_LOG(ModuleLogger(), PRIO_TRACE, "is_run false change to true");
    } else {
        SDK_LOG(ModuleLogger(), PRIO_TRACE, "is_run true change to false");
    }
}

}  // namespace Engine
