// Owns: the changes that wait for one receiver. Not: how many may be posted (SendWindow), nor the
// posting (Delivery). Thread: the task's.

#include "delivery/PendingQueue.h"

#include <algorithm>
#include <functional>
#include <iterator>
#include <string>

#include "delivery/RestoreNames.h"

namespace Engine::FileNotify {

namespace {

constexpr std::size_t kMaskFactor = 0x9E3779B97F4A7C15ULL;
constexpr unsigned int kTurnsBeforeHot = 3;

}  // namespace

bool PendingQueue::Equal::operator()(const Entries::iterator& one,
                                     const Entries::iterator& other) const {
    const PendingChange& a = one->change;
    const PendingChange& b = other->change;
    return a.mask == b.mask && a.subscription == b.subscription && a.path == b.path &&
           a.moveto == b.moveto;
}

std::size_t PendingQueue::HashOf(const PendingChange& change) {
    return std::hash<std::string>()(change.path) ^ (change.mask * kMaskFactor);
}

std::size_t PendingQueue::PathHash(const Entry& entry) {
    return entry.hash ^ (entry.change.mask * kMaskFactor);
}

PendingQueue::Lane PendingQueue::LaneOf(const PendingChange& change) {
    if (change.IsDeletion()) return kHeld;
    return change.IsAboutDirectory() && !change.IsArrival() ? kDirectories : kContents;
}

bool PendingQueue::Concerns(const Entry& entry) {
    return entry.change.IsAboutDirectory() &&
           (entry.change.IsDeletion() || entry.change.IsArrival());
}

bool PendingQueue::IsTemporary(const PendingChange& change) {
    const std::string_view path = change.path;
    return !change.IsAboutDirectory() && IsRestoreTemporary(path.substr(path.rfind('/') + 1));
}

PendingQueue::Pushed PendingQueue::Push(PendingChange change, Time now) {
    if (incoming_.empty()) incoming_.emplace_back();
    Entry& entry = incoming_.front();
    entry.change = std::move(change);
    entry.hash = HashOf(entry.change);
    Pushed pushed;
    if (entry.change.IsDeletion()) {
        pushed.dropped = DropWaiting(entry, {IN_MODIFY, IN_ATTRIB});
        if (IsTemporary(entry.change) && DropWaiting(entry, {IN_CREATE}) > 0) {
            ++pushed.dropped;
            return pushed;
        }
        hold_.Note(now, lanes_[kHeld].empty());
    }
    const auto known = known_.find(incoming_.begin());
    if (known != known_.end()) {
        NoteRepeat(*known, now);
        return pushed;
    }
    Place(entry, now);
    Entries& lane = lanes_[entry.lane];
    lane.splice(lane.end(), incoming_);
    const auto placed = std::prev(lane.end());
    known_.insert(placed);
    if (Concerns(*placed)) NoteDirectory(placed);
    pushed.added = true;
    return pushed;
}

void PendingQueue::NoteRepeat(Entries::iterator entry, Time now) {
    entry->repeated = true;
    if ((entry->lane != kContents && entry->lane != kHot) || Concerns(*entry)) return;
    if (now < entry->pushed + HotFiles::kOneWrite) return;
    hot_files_.Note(PathHash(*entry), now);
    if (entry->lane == kHot) return;
    entry->lane = kHot;
    lanes_[kHot].splice(lanes_[kHot].end(), lanes_[kContents], entry);
}

void PendingQueue::Place(Entry& entry, Time now) {
    entry.lane = LaneOf(entry.change);
    entry.pushed = now;
    entry.serial = ++serial_;
    entry.due = now + DeletionDebounce::kLongest;
    if (entry.lane != kContents) return;
    const bool waits =
        entry.change.IsArrival() ? IsTemporary(entry.change) : repeats_.IsRepeat(entry.hash, now);
    if (!waits) {
        if (!Concerns(entry) && hot_files_.IsHot(PathHash(entry), now)) entry.lane = kHot;
        return;
    }
    entry.lane = kRepeats;
    entry.due = now + ModificationDebounce::kQuiet;
    entry.last_due = now + ModificationDebounce::kLongest;
}

std::size_t PendingQueue::DropWaiting(const Entry& deletion,
                                      std::initializer_list<std::uint32_t> masks) {
    if (known_.empty()) return 0;
    if (probe_.empty()) probe_.emplace_back();
    Entry& probe = probe_.front();
    probe.change.subscription = deletion.change.subscription;
    probe.change.path = deletion.change.path;
    std::size_t dropped = 0;
    for (const std::uint32_t mask : masks) {
        probe.change.mask = mask | (deletion.change.mask & IN_ISDIR);
        probe.hash = HashOf(probe.change);
        const auto found = known_.find(probe_.begin());
        if (found == known_.end()) continue;
        Remove(*found);
        ++dropped;
    }
    probe.change.subscription.reset();
    return dropped;
}

void PendingQueue::NoteDirectory(Entries::iterator entry) {
    directories_.erase(entry->change.path);  // its key is the older entry's text
    directories_.emplace(entry->change.path, entry);
}

std::optional<PendingQueue::Time> PendingQueue::NextDue() const {
    std::optional<Time> next;
    if (!lanes_[kHeld].empty()) next = hold_.Due(lanes_[kHeld].size(), deletion_cost_);
    const Entries& repeats = lanes_[kRepeats];
    if (!repeats.empty()) next = std::min(next.value_or(Time::max()), repeats.front().due);
    return next;
}

std::size_t PendingQueue::Settle(Time now) {
    settled_ = now;
    ReleaseRepeats(now);
    std::size_t held = lanes_[kHeld].size();
    if (held > 0 && hold_.IsOver(now, held, deletion_cost_)) {
        Release();
    } else {
        held = 0;
    }
    // Directories are in the order of their coming: when one is not due, none behind it is.
    for (Entry& entry : lanes_[kDirectories]) {
        if (now < entry.due) break;
        if (!entry.after) entry.after = serial_;
    }
    return held;
}

void PendingQueue::Release() {
    Entries& held = lanes_[kHeld];
    for (Entry& entry : held) {
        entry.lane = kReleased;
        entry.after = serial_;
    }
    lanes_[kReleased].splice(lanes_[kReleased].end(), held);
}

void PendingQueue::ReleaseRepeats(Time now) {
    Entries& repeats = lanes_[kRepeats];
    while (!repeats.empty() && repeats.front().due <= now) {
        Entry& entry = repeats.front();
        if (std::exchange(entry.repeated, false) && now < entry.last_due) {
            entry.due = now + ModificationDebounce::kQuiet;
            repeats.splice(repeats.end(), repeats, repeats.begin());
            continue;
        }
        entry.lane = hot_files_.IsHot(PathHash(entry), now) ? kHot : kContents;
        entry.serial = ++serial_;
        lanes_[entry.lane].splice(lanes_[entry.lane].end(), repeats, repeats.begin());
    }
}

std::size_t PendingQueue::AddRepairs(Time now) {
    std::vector<const PendingChange*> deletions;
    for (const Entry& entry : lanes_[kReleased]) {
        if (!entry.change.IsDeletion()) continue;
        const Entries::iterator* above = TopmostAbove(entry.change, false);
        if (above == nullptr || !(*above)->change.IsDeletion()) deletions.push_back(&entry.change);
    }
    std::size_t added = 0;
    for (PendingChange& repair : PlanRepairs(deletions, names_below_, deletion_cost_)) {
        if (Push(std::move(repair), now).added) ++added;
    }
    if (added > 0) {
        for (Entry& entry : lanes_[kReleased]) entry.after = serial_;
    }
    return added;
}

const PendingChange* PendingQueue::Next(bool deletions_too) {
    while (known_.size() > lanes_[kHeld].size() + lanes_[kRepeats].size()) {
        next_ = Choose(deletions_too);
        if (next_ == lanes_[kContents].end()) return nullptr;
        const Entries::iterator* above = TopmostAbove(next_->change, !Concerns(*next_));
        if (above == nullptr) return &next_->change;
        if ((*above)->lane != kHeld) {
            next_ = *above;
            return &next_->change;
        }
        if (next_->put_back) return &next_->change;
        Entries& from = lanes_[next_->lane];
        next_->put_back = true;
        next_->lane = kHeld;
        lanes_[kHeld].splice(lanes_[kHeld].end(), from, next_);
    }
    return nullptr;
}

PendingQueue::Entries::iterator PendingQueue::Choose(bool deletions_too) {
    for (std::uint8_t turn = 1; turn <= kHeld; ++turn) {
        const auto lane = static_cast<Lane>((last_lane_ + turn) % kHeld);
        if (!MayGo(lane) || (!deletions_too && lane == kReleased)) continue;
        return lane == kContents ? FirstContent() : lanes_[lane].begin();
    }
    return lanes_[kContents].end();
}

bool PendingQueue::HasContents() const {
    return !lanes_[kContents].empty() || !lanes_[kHot].empty();
}

PendingQueue::Entries::iterator PendingQueue::FirstContent() {
    const bool hot_has_its_turn = turns_before_hot_ == 0 && !lanes_[kHot].empty();
    return lanes_[kContents].empty() || hot_has_its_turn ? lanes_[kHot].begin()
                                                         : lanes_[kContents].begin();
}

bool PendingQueue::MayGo(Lane lane) const {
    if (lane == kContents) return HasContents();
    if (lanes_[lane].empty()) return false;
    const Entry& entry = lanes_[lane].front();
    if (Precedes(kContents, entry) || Precedes(kHot, entry)) return false;
    return lane != kReleased || !Precedes(kDirectories, entry);
}

bool PendingQueue::Precedes(Lane lane, const Entry& entry) const {
    return !lanes_[lane].empty() && !(entry.after && lanes_[lane].front().serial > *entry.after);
}

const PendingQueue::Entries::iterator* PendingQueue::TopmostAbove(const PendingChange& change,
                                                                  bool or_itself) const {
    if (directories_.empty()) return nullptr;
    const std::string_view path = change.path;
    std::size_t at = path.find('/', change.subscription->Id().size());
    while (true) {
        if (at == std::string_view::npos && !or_itself) return nullptr;
        const auto found = directories_.find(path.substr(0, at));
        if (found != directories_.end()) return &found->second;
        if (at == std::string_view::npos) return nullptr;
        at = path.find('/', at + 1);
    }
}

void PendingQueue::Pop() {
    const bool is_hot = next_->lane == kHot;
    last_lane_ = is_hot ? kContents : next_->lane;
    turns_before_hot_ = is_hot ? kTurnsBeforeHot : turns_before_hot_ - (turns_before_hot_ > 0);
    repeats_.NotePosted(next_->hash, settled_);
    Remove(next_);
}

PendingQueue::Entries::iterator PendingQueue::Remove(Entries::iterator entry) {
    const auto noted = directories_.find(entry->change.path);
    if (noted != directories_.end() && noted->second == entry) directories_.erase(noted);
    known_.erase(entry);
    return lanes_[entry->lane].erase(entry);
}

std::size_t PendingQueue::DropRevoked() {
    std::size_t dropped = 0;
    for (Entries& lane : lanes_) {
        for (auto entry = lane.begin(); entry != lane.end();) {
            if (entry->change.subscription->IsValid()) {
                ++entry;
            } else {
                entry = Remove(entry);
                ++dropped;
            }
        }
    }
    return dropped;
}

}  // namespace Engine::FileNotify
