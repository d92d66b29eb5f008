// Owns: the order of one receiver's pending changes.
// Must not own: how many may be posted (SendWindow), nor the posting (Delivery).
// Thread: the task's. Ownership passes: Push takes a change over, Pop frees it.

#include "delivery/PendingQueue.h"

#include <algorithm>
#include <string_view>
#include <vector>

#include "delivery/RestoreNames.h"

namespace Engine::FileNotify {

namespace {

constexpr auto kContents = PendingStore::kContents;
constexpr auto kDirectories = PendingStore::kDirectories;
constexpr auto kDeletions = PendingStore::kDeletions;
constexpr auto kHeldDeletions = PendingStore::kHeldDeletions;
constexpr auto kHeldModifications = PendingStore::kHeldModifications;
constexpr auto kHot = PendingStore::kHot;
constexpr std::uint8_t kLanesInTurn = kDeletions + 1;  // kHot shares the turns of kContents

bool IsTemporary(const PendingChange& change) {
    const std::string_view path = change.path;
    return !change.IsAboutDirectory() && IsRestoreTemporary(path.substr(path.rfind('/') + 1));
}

}  // namespace

PendingQueue::Lane PendingQueue::LaneOf(const PendingChange& change) {
    if (change.IsDeletion()) return kHeldDeletions;
    return change.IsAboutDirectory() && !change.IsArrival() ? kDirectories : kContents;
}

PendingQueue::Pushed PendingQueue::Push(PendingChange change, Time now) {
    Entry& entry = store_.Stage(std::move(change));
    Pushed pushed;
    if (entry.change.IsDeletion()) {
        const std::uint32_t kind = entry.change.mask & IN_ISDIR;
        pushed.dropped = store_.RemoveWithMasks(entry.change, {IN_MODIFY | kind, IN_ATTRIB | kind});
        if (IsTemporary(entry.change) && store_.RemoveWithMasks(entry.change, {IN_CREATE}) > 0) {
            ++pushed.dropped;
            return pushed;
        }
        deletion_debounce_.OnDeletion(now, store_.At(kHeldDeletions).empty());
    }
    if (const auto equal = store_.FindStaged()) {
        OnRepeat(*equal, now);
        return pushed;
    }
    ChooseLane(entry, now);
    store_.CommitStaged();
    pushed.added = true;
    return pushed;
}

void PendingQueue::OnRepeat(Entries::iterator entry, Time now) {
    entry->repeated = true;
    if ((entry->lane != kContents && entry->lane != kHot) || entry->ChangesSubtree()) return;
    if (now < entry->pushed + HotFiles::kOneWrite) return;
    hot_files_.MarkHot(entry->PathHash(), now);
    if (entry->lane != kHot) store_.Move(entry, kHot);
}

void PendingQueue::ChooseLane(Entry& entry, Time now) {
    entry.lane = LaneOf(entry.change);
    entry.pushed = now;
    entry.serial = ++serial_;
    entry.due = now + DeletionDebounce::kMaxDelay;
    if (entry.lane != kContents) return;
    const bool waits = entry.change.IsArrival() ? IsTemporary(entry.change)
                                                : modification_debounce_.IsRepeat(entry.hash, now);
    if (waits) {
        entry.lane = kHeldModifications;
        entry.due = now + ModificationDebounce::kQuietPeriod;
        entry.latest_due = now + ModificationDebounce::kMaxDelay;
    } else if (!entry.ChangesSubtree() && hot_files_.IsHot(entry.PathHash(), now)) {
        entry.lane = kHot;
    }
}

std::optional<PendingQueue::Time> PendingQueue::NextDue() const {
    std::optional<Time> next;
    const std::size_t held = store_.At(kHeldDeletions).size();
    if (held > 0) next = deletion_debounce_.Due(held, deletion_cost_);
    const Entries& modifications = store_.At(kHeldModifications);
    if (!modifications.empty()) {
        next = std::min(next.value_or(Time::max()), modifications.front().due);
    }
    return next;
}

std::size_t PendingQueue::ReleaseDue(Time now) {
    released_at_ = now;
    ReleaseModifications(now);
    std::size_t held = store_.At(kHeldDeletions).size();
    if (held > 0 && deletion_debounce_.IsDone(now, held, deletion_cost_)) {
        ReleaseDeletions();
    } else {
        held = 0;
    }
    // Directories are in the order of arrival, so none behind the first undue one is due.
    for (Entry& entry : store_.At(kDirectories)) {
        if (now < entry.due) break;
        if (!entry.after) entry.after = serial_;
    }
    return held;
}

void PendingQueue::ReleaseDeletions() {
    Entries& held = store_.At(kHeldDeletions);
    while (!held.empty()) {
        held.front().after = serial_;
        store_.Move(held.begin(), kDeletions);
    }
}

void PendingQueue::ReleaseModifications(Time now) {
    Entries& held = store_.At(kHeldModifications);
    while (!held.empty() && held.front().due <= now) {
        Entry& entry = held.front();
        if (std::exchange(entry.repeated, false) && now < entry.latest_due) {
            entry.due = now + ModificationDebounce::kQuietPeriod;
            store_.Move(held.begin(), kHeldModifications);
            continue;
        }
        entry.serial = ++serial_;
        store_.Move(held.begin(), hot_files_.IsHot(entry.PathHash(), now) ? kHot : kContents);
    }
}

std::size_t PendingQueue::AnnounceDirectories(Time now) {
    std::vector<const PendingChange*> deletions;
    for (const Entry& entry : store_.At(kDeletions)) {
        if (!entry.change.IsDeletion()) continue;
        const Entries::iterator* above = store_.TopmostAbove(entry.change, false);
        if (above == nullptr || !(*above)->change.IsDeletion()) deletions.push_back(&entry.change);
    }
    std::size_t added = 0;
    for (PendingChange& change : CoalesceDeletions(deletions, count_names_, deletion_cost_)) {
        if (Push(std::move(change), now).added) ++added;
    }
    if (added > 0) {
        for (Entry& entry : store_.At(kDeletions)) entry.after = serial_;
    }
    return added;
}

const PendingChange* PendingQueue::Next(bool deletions_too) {
    while (store_.Size() >
           store_.At(kHeldDeletions).size() + store_.At(kHeldModifications).size()) {
        next_ = Choose(deletions_too);
        if (next_ == store_.At(kContents).end()) return nullptr;
        const Entries::iterator* above =
            store_.TopmostAbove(next_->change, !next_->ChangesSubtree());
        if (above == nullptr) return &next_->change;
        if ((*above)->lane != kHeldDeletions) {
            next_ = *above;
            return &next_->change;
        }
        if (next_->waited_for_parent) return &next_->change;
        next_->waited_for_parent = true;
        store_.Move(next_, kHeldDeletions);
    }
    return nullptr;
}

PendingQueue::Entries::iterator PendingQueue::Choose(bool deletions_too) {
    for (std::uint8_t turn = 1; turn <= kLanesInTurn; ++turn) {
        const auto lane = static_cast<Lane>((last_lane_ + turn) % kLanesInTurn);
        if (!IsReady(lane) || (!deletions_too && lane == kDeletions)) continue;
        return lane == kContents ? ChooseContents() : store_.At(lane).begin();
    }
    return store_.At(kContents).end();
}

PendingQueue::Entries::iterator PendingQueue::ChooseContents() {
    Entries& contents = store_.At(kContents);
    Entries& hot = store_.At(kHot);
    const bool is_turn_of_hot = turns_before_hot_ == 0 && !hot.empty();
    return contents.empty() || is_turn_of_hot ? hot.begin() : contents.begin();
}

bool PendingQueue::IsReady(Lane lane) const {
    if (lane == kContents) return !store_.At(kContents).empty() || !store_.At(kHot).empty();
    if (store_.At(lane).empty()) return false;
    const Entry& entry = store_.At(lane).front();
    if (Precedes(kContents, entry) || Precedes(kHot, entry)) return false;
    return lane != kDeletions || !Precedes(kDirectories, entry);
}

bool PendingQueue::Precedes(Lane lane, const Entry& entry) const {
    const Entries& others = store_.At(lane);
    return !others.empty() && !(entry.after && others.front().serial > *entry.after);
}

void PendingQueue::Pop() {
    const bool is_hot = next_->lane == kHot;
    last_lane_ = is_hot ? kContents : next_->lane;
    turns_before_hot_ = is_hot ? kTurnsBeforeHot : turns_before_hot_ - (turns_before_hot_ > 0);
    modification_debounce_.OnPosted(next_->hash, released_at_);
    store_.Remove(next_);
}

}  // namespace Engine::FileNotify
