// Owns the changes that are to be judged again. It must not judge them itself (the inotify task
// does). Inotify task's thread.
#include "feature_sentrel/rejudge/Rejudge.h"

#include <sdk/log/Log.h>
#include <sys/inotify.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "base/ModuleLogger.h"
#include "state/ModuleState.h"
#include "utils/SentrelUtils.h"

namespace Engine {

namespace {

constexpr int kMostAtOnce = 128;
// A page that is changed meanwhile waits that long.
constexpr std::chrono::milliseconds kSlice{20};
// A cause such as a full disk fails for every path.
constexpr std::chrono::seconds kRestAfterFailure{1};
// Upper bound of the delay between a change and its inotify record.
constexpr std::chrono::seconds kReadingDelay{2};
// Somebody who changes linked files all the time gets at most a twentieth of the time for
// comparisons.
constexpr std::chrono::seconds kLeastRest{1};
constexpr int kRestPerComparison = 20;

}  // namespace

bool AwaitsBackup(const SentrelDirRule& rule, const BackupProgress& progress) {
    return SentrelUtils::GetInstance()->MakesLocalBackup() &&
           (!progress.IsComplete(rule) || progress.IsChecking(rule));
}

Rejudge::Rejudge(Owner owner, ModuleState& state, std::size_t backlog)
    : owner_(std::move(owner)),
      state_(state),
      deferred_(backlog),
      failed_(std::min(backlog, RetryQueue::kCapacity)),
      given_up_(std::min(backlog, RetryQueue::kCapacity)) {}

void Rejudge::Take(const FileChange& change, const Handling& handling,
                   const RecentRestores& recent) {
    switch (handling.outcome) {
        case Outcome::kDeferred:
            Defer(change);
            break;
        case Outcome::kRestoreFailed:
        case Outcome::kRemovalFailed:
        case Outcome::kNotJudged:
            KeepFailed(change);
            break;
        default:
            break;
    }
    if (change.origin == ChangeOrigin::kReconcile || change.origin == ChangeOrigin::kGivenUp) {
        return;
    }
    // A change through one name changes the object at all its names; the kernel reports only one.
    if (handling.other_names) to_compare_[change.watch_id].objects.insert(*handling.other_names);
    if (handling.vanished) NoteVanished(change, recent);
}

void Rejudge::Defer(const FileChange& change) {
    SentrelStatus& status = state_.status;
    if (deferred_.Keep(change)) {
        status.Count(SentrelStatus::kEventsDeferred);
        SDK_LOG(ModuleLogger(), PRIO_DEBUG, "%s waits for the first backup to be complete.",
                change.path);
        return;
    }
    status.Count(SentrelStatus::kDeferredOverflows);
    CompareLater(change.watch_id);
}

void Rejudge::KeepFailed(FileChange change) {
    ++change.attempt;
    switch (failed_.Keep(change, Clock::now())) {
        case RetryQueue::Kept::kYes:
            SDK_LOG(ModuleLogger(), PRIO_DEBUG, "%s is judged again later.", change.path);
            return;
        case RetryQueue::Kept::kGivenUp:
            GiveUp(std::move(change));
            return;
        case RetryQueue::Kept::kNoRoom:
            CompareLater(change.watch_id);
            return;
    }
}

/// The object does not change any more, so a look would not see it.
void Rejudge::GiveUp(FileChange change) {
    if (change.origin != ChangeOrigin::kGivenUp) {
        state_.status.Count(SentrelStatus::kRetriesGivenUp);
        SDK_LOG(ModuleLogger(), PRIO_WARNING,
                "%s cannot be restored or removed and is given up until the next look.",
                change.path);
    }
    const std::string watch_id = change.watch_id;
    change.origin = ChangeOrigin::kGivenUp;
    change.attempt = RetryQueue::kMostTries;
    if (!given_up_.Keep(std::move(change))) CompareLater(watch_id);
}

void Rejudge::CompareLater(const std::string& watch_id) {
    if (std::exchange(to_compare_[watch_id].everything, true)) return;
    SDK_LOG(ModuleLogger(), PRIO_WARNING,
            "too many changes of %s wait; the whole tree is compared with its copy later.",
            watch_id);
}

/// A change through a name that is gone by now may show at other names. The object is not known any
/// more, but its change time is: the tree is searched for objects changed since then. Not needed
/// when a restore of ours removed the name.
void Rejudge::NoteVanished(const FileChange& change, const RecentRestores& recent) {
    if (change.read_time == Clock::time_point() ||
        recent.IsLaterThan(change.path, change.read_time))
        return;
    const auto age = std::chrono::duration_cast<std::chrono::seconds>(
        Clock::now() - change.read_time + kReadingDelay);
    Scope& scope = to_compare_[change.watch_id];
    scope.changed_since =
        std::min<std::time_t>(scope.changed_since, std::time(nullptr) - age.count());
}

Handling Rejudge::Judge(const FileChange& change, const RecentRestores& recent) {
    const Handling handling = owner_.judge(change);
    Take(change, handling, recent);
    return handling;
}

bool Rejudge::HandleDue(Clock::time_point now, const RecentRestores& recent) {
    const bool more_deferred = HandleDeferred(recent);
    const bool more_failed = HandleFailed(now, recent);
    const bool more_given_up = HandleGivenUp(now, recent);
    const bool more_to_compare = CompareTrees(now, recent);
    state_.status.PublishBacklog(deferred_.Size(), failed_.Size(),
                                 to_compare_.size() + (reconciler_ ? 1 : 0), given_up_.Size());
    return more_deferred || more_failed || more_given_up || more_to_compare;
}

bool Rejudge::HandleDeferred(const RecentRestores& recent) {
    if (deferred_.Size() == 0) return false;
    const auto is_ready = [this](const std::string& watch_id) {
        const SentrelDirRule* rule = owner_.rule(watch_id);
        return rule == nullptr || !AwaitsBackup(*rule, state_.progress);
    };
    for (int done = 0; done < kMostAtOnce && !owner_.should_yield(); ++done) {
        const std::vector<FileChange> oldest = deferred_.Take(1, is_ready);
        if (oldest.empty()) return false;
        Judge(oldest.front(), recent);
    }
    return true;
}

bool Rejudge::HandleFailed(Clock::time_point now, const RecentRestores& recent) {
    if (now < retries_rest_until_) return false;
    for (int done = 0; done < kMostAtOnce && !owner_.should_yield(); ++done) {
        const std::optional<FileChange> due = failed_.TakeDue(now);
        if (!due) return false;
        state_.status.Count(SentrelStatus::kRetries);
        const Outcome outcome = Judge(*due, recent).outcome;
        if (!IsFailure(outcome)) continue;
        retries_rest_until_ = now + kRestAfterFailure;
        return false;
    }
    return true;
}

bool Rejudge::HandleGivenUp(Clock::time_point now, const RecentRestores& recent) {
    if (now < given_up_rest_until_) return false;
    for (int done = 0; done < kMostAtOnce && !owner_.should_yield(); ++done) {
        const std::optional<FileChange> due = given_up_.TakeDue();
        if (!due) return false;
        const auto begun = Clock::now();
        if (!IsFailure(Judge(*due, recent).outcome)) continue;
        // A large file that fails each time must not keep the thread from other work.
        given_up_rest_until_ =
            now + std::max<Clock::duration>(kRestAfterFailure,
                                            kRestPerComparison * (Clock::now() - begun));
        return false;
    }
    return true;
}

/// True when more is to be done at once.
bool Rejudge::CompareTrees(Clock::time_point now, const RecentRestores& recent) {
    if (failed_.IsHalfFull()) return false;  // undoing what it finds would fail, too
    // A pause makes earlier results of the comparison void.
    if (reconciler_ && !MayCompare(comparing_)) EndComparison(false);
    if (!reconciler_) {
        const auto may_begin = [&](const auto& one) {
            return MayCompare(one.first) &&
                   (one.second.everything || now >= comparisons_rest_until_);
        };
        const auto ready = std::find_if(to_compare_.begin(), to_compare_.end(), may_begin);
        if (ready == to_compare_.end()) return false;
        BeginComparison(ready->first, recent);
    }
    const auto until = Clock::now() + kSlice;
    while (!owner_.should_yield() && Clock::now() < until) {
        if (reconciler_->Step(until)) continue;
        EndComparison(true);
        break;
    }
    return true;
}

bool Rejudge::MayCompare(const std::string& watch_id) const {
    const SentrelDirRule* rule = owner_.rule(watch_id);
    return rule != nullptr && !AwaitsBackup(*rule, state_.progress);
}

void Rejudge::BeginComparison(const std::string& watch_id, const RecentRestores& recent) {
    const SentrelDirRule rule = *owner_.rule(watch_id);
    const auto ignored = [this, rule](const std::string& path) {
        return owner_.ignored(rule, path);
    };
    const auto judge = [this, watch_id, &recent](const std::string& path, std::uint32_t raw_mask) {
        if (!IsInScope(path)) return;
        Judge({watch_id, path, raw_mask, Clock::now(), 0, ChangeOrigin::kReconcile}, recent);
    };
    comparing_ = watch_id;
    comparison_begun_ = Clock::now();
    reconciler_.emplace(state_.anchors, rule, ignored, judge, state_.progress.AttributeKinds(rule));
    scope_ = std::move(to_compare_[comparing_]);
    to_compare_.erase(comparing_);
}

void Rejudge::EndComparison(bool is_complete) {
    reconciler_.reset();
    const auto now = Clock::now();
    comparisons_rest_until_ =
        now + std::max<Clock::duration>(kLeastRest, kRestPerComparison * (now - comparison_begun_));
    if (!is_complete) {
        Scope& waiting = to_compare_[comparing_];
        waiting.everything = waiting.everything || scope_.everything;
        waiting.objects.merge(scope_.objects);
        waiting.changed_since = std::min(waiting.changed_since, scope_.changed_since);
    } else if (scope_.everything) {
        SDK_LOG(ModuleLogger(), PRIO_NOTICE, "%s has been compared with its copy.", comparing_);
        state_.status.Count(SentrelStatus::kTreesCompared);
    }
}

bool Rejudge::IsInScope(const std::string& path) const {
    if (scope_.everything) return true;
    const SentrelDirRule* rule = owner_.rule(comparing_);
    const RulePlaces places = rule == nullptr ? RulePlaces() : state_.anchors.Of(*rule);
    struct stat info {};
    return places && places.anchors->StatLive(path, info) == 0 &&
           (info.st_ctime >= scope_.changed_since ||
            scope_.objects.count({info.st_dev, info.st_ino}) > 0);
}

void Rejudge::Forget() {
    deferred_.Clear();
    failed_.Clear();
    given_up_.Clear();
    to_compare_.clear();
    reconciler_.reset();
    retries_rest_until_ = {};
    given_up_rest_until_ = {};
    comparisons_rest_until_ = {};
    state_.status.PublishBacklog(0, 0, 0, 0);
}

}  // namespace Engine
