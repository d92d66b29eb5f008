// Owns: the pending changes of one receiver. Must not own: their order (PendingQueue).
// Thread: the task's. Ownership passes: Stage takes a change over, Remove frees it.

#include "delivery/PendingStore.h"

#include <functional>
#include <iterator>
#include <string>
#include <utility>

namespace Engine::FileNotify {

namespace {

constexpr std::size_t kMaskFactor = 0x9E3779B97F4A7C15ULL;

std::size_t HashOf(const PendingChange& change) {
    return std::hash<std::string>()(change.path) ^ (change.mask * kMaskFactor);
}

}  // namespace

std::size_t PendingStore::Entry::PathHash() const {
    return hash ^ (change.mask * kMaskFactor);
}

bool PendingStore::Entry::ChangesSubtree() const {
    return change.IsAboutDirectory() && (change.IsDeletion() || change.IsArrival());
}

bool PendingStore::Equal::operator()(const Entries::iterator& one,
                                     const Entries::iterator& other) const {
    const PendingChange& a = one->change;
    const PendingChange& b = other->change;
    return a.mask == b.mask && a.subscription == b.subscription && a.path == b.path &&
           a.moveto == b.moveto;
}

PendingStore::Entry& PendingStore::Stage(PendingChange change) {
    if (staged_.empty()) staged_.emplace_back();
    Entry& entry = staged_.front();
    entry.change = std::move(change);
    entry.hash = HashOf(entry.change);
    return entry;
}

std::optional<PendingStore::Entries::iterator> PendingStore::FindStaged() {
    const auto known = known_.find(staged_.begin());
    return known == known_.end() ? std::nullopt : std::optional(*known);
}

void PendingStore::CommitStaged() {
    const auto entry = staged_.begin();
    Entries& lane = lanes_[entry->lane];
    lane.splice(lane.end(), staged_);
    known_.insert(entry);
    if (!entry->ChangesSubtree()) return;
    directories_.erase(entry->change.path);  // the key belongs to the older entry
    directories_.emplace(entry->change.path, entry);
}

void PendingStore::Move(Entries::iterator entry, Lane lane) {
    lanes_[lane].splice(lanes_[lane].end(), lanes_[entry->lane], entry);
    entry->lane = lane;
}

PendingStore::Entries::iterator PendingStore::Remove(Entries::iterator entry) {
    const auto directory = directories_.find(entry->change.path);
    if (directory != directories_.end() && directory->second == entry) {
        directories_.erase(directory);
    }
    known_.erase(entry);
    return lanes_[entry->lane].erase(entry);
}

std::size_t PendingStore::RemoveWithMasks(const PendingChange& change,
                                          std::initializer_list<std::uint32_t> masks) {
    if (known_.empty()) return 0;
    if (probe_.empty()) probe_.emplace_back();
    Entry& probe = probe_.front();
    probe.change.subscription = change.subscription;
    probe.change.path = change.path;
    std::size_t removed = 0;
    for (const std::uint32_t mask : masks) {
        probe.change.mask = mask;
        probe.hash = HashOf(probe.change);
        const auto found = known_.find(probe_.begin());
        if (found == known_.end()) continue;
        Remove(*found);
        ++removed;
    }
    probe.change.subscription.reset();
    return removed;
}

std::size_t PendingStore::RemoveRevoked() {
    std::size_t removed = 0;
    for (Entries& lane : lanes_) {
        for (auto entry = lane.begin(); entry != lane.end();) {
            if (entry->change.subscription->IsValid()) {
                ++entry;
            } else {
                entry = Remove(entry);
                ++removed;
            }
        }
    }
    return removed;
}

const PendingStore::Entries::iterator* PendingStore::TopmostAbove(const PendingChange& change,
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

}  // namespace Engine::FileNotify
