#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <utility>

#include "delivery/DeletionCoalescing.h"
#include "delivery/DeletionDebounce.h"
#include "delivery/HotFiles.h"
#include "delivery/ModificationDebounce.h"
#include "delivery/PendingStore.h"

namespace Engine::FileNotify {

/// Decides which pending change of one receiver is posted next. Owned by Delivery. Not thread-safe.
///
/// Merging: the receiver examines the object when it handles a message, so of equal changes (watch,
/// path, mask, move target) only the first is kept. A deletion drops pending changes of contents
/// and attributes of its object. So the queue is bounded by the number of paths, not by a constant.
///
/// Order, chosen so that one message spares the receiver others:
/// - Deletions wait for DeletionDebounce; in a storm repeated changes of contents wait for
///   ModificationDebounce.
/// - The arrival of a restore's temporary file (RestoreNames) waits as long as a repeated change.
///   If it is deleted meanwhile, neither is announced.
/// - Changes of contents go first, then those of directories, then deletions: restoring a directory
///   also undoes changes in it, which must be judged and reported before.
/// - The arrival or deletion of a directory precedes all changes below it, the topmost directory
///   first. Changes below a held deletion wait with it.
/// - Changes of hot files (HotFiles) go behind other changes of contents, but get every fourth
///   turn.
/// - Nothing starves: after its delay, a waiting change lets only older changes go first and then
///   takes turns with newer ones.
class PendingQueue {
  public:
    using Time = std::chrono::steady_clock::time_point;

    /// `count_names` is called by AnnounceDirectories.
    explicit PendingQueue(CountNames count_names) : count_names_(std::move(count_names)) {}
    PendingQueue(const PendingQueue&) = delete;
    PendingQueue& operator=(const PendingQueue&) = delete;
    ~PendingQueue() = default;

    struct Pushed {
        bool added = false;       ///< false: merged, or cancelled out with `dropped` ones
        std::size_t dropped = 0;  ///< pending changes that the new one made obsolete
    };
    Pushed Push(PendingChange change, Time now);
    void SetStorm(bool storm) { modification_debounce_.SetStorm(storm); }
    /// `cost`: the receiver's measured time to undo one deletion.
    void SetDeletionCost(std::chrono::nanoseconds cost) { deletion_cost_ = cost; }
    std::size_t Size() const { return store_.Size(); }

    /// Releases held changes that are due. Returns how many deletions it released.
    std::size_t ReleaseDue(Time now);

    /// Adds a change of each directory in which it is cheaper to restore everything than to undo
    /// the released deletions one by one; these changes precede the deletions. Returns how many.
    std::size_t AnnounceDirectories(Time now);

    /// When ReleaseDue has work; none when nothing is held.
    std::optional<Time> NextDue() const;

    /// The next change to post; null when there is none. Without `deletions_too` only those
    /// deletions that other changes must follow. Valid until the queue changes.
    const PendingChange* Next(bool deletions_too);
    /// Removes the change that Next returned.
    void Pop();

    /// Removes changes of revoked subscriptions. Returns how many.
    std::size_t DropRevoked() { return store_.RemoveRevoked(); }

  private:
    using Lane = PendingStore::Lane;
    using Entry = PendingStore::Entry;
    using Entries = PendingStore::Entries;

    static constexpr unsigned int kTurnsBeforeHot = 3;

    static Lane LaneOf(const PendingChange& change);
    void ChooseLane(Entry& entry, Time now);
    void OnRepeat(Entries::iterator entry, Time now);
    void ReleaseDeletions();
    void ReleaseModifications(Time now);
    Entries::iterator Choose(bool deletions_too);
    Entries::iterator ChooseContents();
    bool IsReady(Lane lane) const;
    bool Precedes(Lane lane, const Entry& entry) const;

    const CountNames count_names_;
    PendingStore store_;
    Entries::iterator next_;
    DeletionDebounce deletion_debounce_;
    std::chrono::nanoseconds deletion_cost_ = DeletionDebounce::kDefaultCost;
    ModificationDebounce modification_debounce_;
    HotFiles hot_files_;
    unsigned int turns_before_hot_ = kTurnsBeforeHot;
    Time released_at_{};
    std::uint64_t serial_ = 0;
    std::uint8_t last_lane_ = PendingStore::kContents;  ///< lane of the last posted change
};

}  // namespace Engine::FileNotify
