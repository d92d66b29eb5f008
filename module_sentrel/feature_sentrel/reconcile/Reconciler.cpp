// Owns when each protected path was looked through last. It must not walk (ChangeScan does) nor
// judge (the inotify task does). Inotify task's thread.
#include "feature_sentrel/reconcile/Reconciler.h"

#include <cstdlib>
#include <utility>

namespace Engine {

namespace {

constexpr std::chrono::milliseconds kSlice{10};
constexpr std::chrono::seconds kRestWhenNothingIsDue{1};
constexpr int kRestPerSlice = 99;  // a hundredth of the time
// File systems stamp changes with a coarse clock, and a change may be stamped before it is visible.
constexpr std::time_t kOverlapSeconds = 2;
constexpr std::chrono::milliseconds kClockJump{1000};

std::timespec TimeOf(clockid_t clock) {
    std::timespec time{};
    ::clock_gettime(clock, &time);
    return time;
}

std::chrono::milliseconds Milliseconds(const std::timespec& time) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
        std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec));
}

bool IsUndoing(Outcome outcome) {
    return outcome != Outcome::kNone && outcome != Outcome::kDeferred && outcome != Outcome::kHeld;
}

}  // namespace

void Reconciler::LookSoon(const std::string& watch_id, const std::string& path) {
    if (soon_.size() < kMostSoon) {
        soon_.emplace(watch_id, path);
    } else {
        progress_[watch_id].due = {};
        next_slice_ = {};
    }
}

bool Reconciler::Work(Clock::time_point now) {
    WorkThrough(now);
    const auto until = Clock::now() + kSlice;
    do {
        if (!soon_scan_ && !BeginSoon()) return false;
        const auto rule = owner_.rules.find(soon_watch_);
        const auto places = rule == owner_.rules.end() ? nullptr : owner_.places(rule->second);
        if (places == nullptr || !soon_scan_->Step(*places, until)) soon_scan_.reset();
    } while (!owner_.should_pause() && Clock::now() < until);
    return soon_scan_ || !soon_.empty();
}

bool Reconciler::BeginSoon() {
    if (soon_.empty()) return false;
    const auto next = soon_.extract(soon_.begin()).value();
    const auto rule = owner_.rules.find(next.first);
    if (rule == owner_.rules.end()) return true;
    soon_watch_ = next.first;
    std::timespec since = TimeOf(CLOCK_REALTIME);
    since.tv_sec -= kOverlapSeconds;
    soon_scan_.emplace(ScanOwner(next.first, rule->second, ChangeOrigin::kRetry), since,
                       next.second);
    return true;
}

void Reconciler::WorkThrough(Clock::time_point now) {
    if (period_.count() == 0 || now < next_slice_) return;
    if (!scan_ && !BeginNext(now)) {
        next_slice_ = now + kRestWhenNothingIsDue;  // no rule is asked with every event
        return;
    }
    const auto begun = Clock::now();
    const bool more = Step();
    const auto took = Clock::now() - begun;
    look_.duration += std::chrono::duration_cast<std::chrono::milliseconds>(took);
    next_slice_ = now + kRestPerSlice * took;
    if (!more) End();
}

bool Reconciler::BeginNext(Clock::time_point now) {
    for (const auto& [watch_id, rule] : owner_.rules) {
        const std::optional<Basis> basis = owner_.basis(rule);
        if (!basis) continue;
        Progress& progress = progress_[watch_id];
        if (progress.round != basis->round) progress = {basis->round, basis->begun, now};
        if (now < progress.due) continue;
        Begin(watch_id, rule, now);
        return true;
    }
    return false;
}

void Reconciler::Begin(const std::string& watch_id, const SentrelDirRule& rule,
                       Clock::time_point now) {
    Progress& progress = progress_[watch_id];
    progress.due = now + period_;
    // Objects that were changed before the clock was set back would seem old.
    if (HasClockJumped()) {
        for (auto& [other, known] : progress_) known.since = {};
    }
    scanning_ = watch_id;
    look_ = {rule.real_path};
    look_began_ = TimeOf(CLOCK_REALTIME);
    scan_.emplace(ScanOwner(watch_id, rule, ChangeOrigin::kReconcile), progress.since);
    owner_.begun(watch_id);
}

ChangeScan::Owner Reconciler::ScanOwner(const std::string& watch_id, const SentrelDirRule& rule,
                                        ChangeOrigin origin) {
    ChangeScan::Owner owner;
    owner.ignored = [this, rule](const std::string& path) { return owner_.ignored(rule, path); };
    owner.should_pause = owner_.should_pause;
    owner.named = [this, watch_id, origin](const std::string& path, std::uint32_t raw_mask) {
        const Handling handling = owner_.judge({watch_id, path, raw_mask, Clock::now(), 0, origin});
        const bool is_found = IsUndoing(handling.outcome);
        if (is_found && origin == ChangeOrigin::kReconcile) ++look_.found;
    };
    const std::optional<Basis> basis = owner_.basis(rule);
    if (basis) owner.attribute_kinds = basis->attribute_kinds;
    return owner;
}

/// True when there is more to be looked at.
bool Reconciler::Step() {
    const auto rule = owner_.rules.find(scanning_);
    const std::optional<Basis> basis =
        rule == owner_.rules.end() ? std::nullopt : owner_.basis(rule->second);
    const auto places = basis ? owner_.places(rule->second) : nullptr;
    // What a new round copies is not to be judged by what an older one has seen.
    if (places == nullptr || basis->round != progress_[scanning_].round) {
        scan_.reset();
        return true;
    }
    return scan_->Step(*places, Clock::now() + kSlice);
}

void Reconciler::End() {
    look_.seen = scan_->Seen();
    scan_.reset();
    look_began_.tv_sec -= kOverlapSeconds;
    progress_[scanning_].since = look_began_;
    owner_.ended(look_);
}

bool Reconciler::HasClockJumped() {
    const std::chrono::milliseconds offset =
        Milliseconds(TimeOf(CLOCK_REALTIME)) - Milliseconds(TimeOf(CLOCK_BOOTTIME));
    const auto former = std::exchange(clock_offset_, offset);
    return former && std::abs((offset - *former).count()) > kClockJump.count();
}

void Reconciler::Forget() {
    scan_.reset();
    soon_scan_.reset();
    soon_.clear();
    progress_.clear();
    next_slice_ = {};
}

}  // namespace Engine
