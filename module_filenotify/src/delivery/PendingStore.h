#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <list>
#include <optional>
#include <string_view>
#include <unordered_map>
#include <unordered_set>

#include "delivery/PendingChange.h"

namespace Engine::FileNotify {

/// Stores the pending changes of one receiver in lanes. Finds equal changes, and arrivals and
/// deletions of directories by path. Decides nothing about their order. Owned by PendingQueue. Not
/// thread-safe.
class PendingStore {
  public:
    using Time = std::chrono::steady_clock::time_point;

    enum Lane : std::uint8_t {
        kContents,
        kDirectories,
        kDeletions,
        kHeldDeletions,      ///< wait for DeletionDebounce
        kHeldModifications,  ///< wait for ModificationDebounce
        kHot,                ///< contents of hot files
        kLanes
    };

    struct Entry {
        PendingChange change;
        std::size_t hash = 0;  ///< of path and mask
        Lane lane = kContents;
        bool waited_for_parent = false;  ///< has waited for a directory above it
        Time pushed{};
        std::uint64_t serial = 0;            ///< order of arrival
        std::optional<std::uint64_t> after;  ///< changes up to this serial go first
        Time due{};  ///< of a directory: when to set `after`; of a held modification: its end
        Time latest_due{};      ///< upper bound of `due` of a held modification
        bool repeated = false;  ///< an equal change arrived while it was pending

        std::size_t PathHash() const;
        /// Arrival or deletion of a directory.
        bool ChangesSubtree() const;
    };
    using Entries = std::list<Entry>;

    PendingStore() = default;
    PendingStore(const PendingStore&) = delete;
    PendingStore& operator=(const PendingStore&) = delete;
    ~PendingStore() = default;

    std::size_t Size() const { return known_.size(); }
    Entries& At(Lane lane) { return lanes_[lane]; }
    const Entries& At(Lane lane) const { return lanes_[lane]; }

    /// Prepares an entry outside all lanes; it replaces the last one that was not committed.
    Entry& Stage(PendingChange change);
    /// The pending entry that equals the staged one in watch, path, mask and move target.
    std::optional<Entries::iterator> FindStaged();
    /// Appends the staged entry to its lane.
    void CommitStaged();

    void Move(Entries::iterator entry, Lane lane);
    /// Removes the entry and returns the next one of its lane.
    Entries::iterator Remove(Entries::iterator entry);
    /// Removes changes that equal `change` except that they have one of `masks`. Returns how many.
    std::size_t RemoveWithMasks(const PendingChange& change,
                                std::initializer_list<std::uint32_t> masks);
    /// Removes changes of revoked subscriptions. Returns how many.
    std::size_t RemoveRevoked();

    /// The topmost pending arrival or deletion of a directory above the object of `change`;
    /// `or_itself`: or of that object. Null when there is none. Valid until the store changes.
    const Entries::iterator* TopmostAbove(const PendingChange& change, bool or_itself) const;

  private:
    struct Hash {
        std::size_t operator()(const Entries::iterator& entry) const { return entry->hash; }
    };
    struct Equal {
        bool operator()(const Entries::iterator& one, const Entries::iterator& other) const;
    };

    std::array<Entries, kLanes> lanes_;
    std::unordered_set<Entries::iterator, Hash, Equal> known_;
    Entries staged_;  ///< at most one
    Entries probe_;   ///< at most one, a key for lookups in known_
    /// The last pending arrival or deletion of each directory, by path.
    std::unordered_map<std::string_view, Entries::iterator> directories_;
};

}  // namespace Engine::FileNotify
