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
#include <utility>

#include "delivery/DeletionDebounce.h"
#include "delivery/HotFiles.h"
#include "delivery/ModificationDebounce.h"
#include "delivery/PendingChange.h"
#include "delivery/RepairPlan.h"

namespace Engine::FileNotify {

/// What waits for one receiver, and which of it goes next. Of changes with the same watch, path,
/// mask and move target only the first is kept: the receiver looks at the object when it gets the
/// message, so one that it has not had yet speaks for the later ones too. Not bounded by a number,
/// but by the paths there are.
///
/// A deletion speaks for the changes of contents and attributes of its object that came before it
/// and still wait: these are dropped, so that the receiver does not take the deletion for one of
/// them.
///
/// The order, since one message may spare the receiver many others:
/// - Deletions are held back as long as DeletionDebounce says, repeated changes of contents in a
/// storm as
///   long as ModificationDebounce says.
/// - The arrival of a restore's temporary (RestoreNames) waits as long as a repeated change; when
///   its deletion comes meanwhile, neither is told.
/// - Changes of content go first, then those of directories (a receiver that puts a directory back
///   undoes what is changed in it, which is to be judged and told before), then deletions.
/// - The arrival or deletion of a directory goes ahead of all that waits below it, the topmost
/// first;
///   what is below one that is held back waits with it.
/// - Of changes of content those of files that are rewritten all the time (HotFiles) go behind
///   the others, and have every fourth turn.
/// - Nothing waits for ever: what waits behind others lets those go ahead that were there when its
///   own time came, and then takes turns with newer ones.
///
/// Task's thread only.
class PendingQueue {
  public:
    using Time = std::chrono::steady_clock::time_point;

    explicit PendingQueue(NamesBelow names_below) : names_below_(std::move(names_below)) {}
    PendingQueue(const PendingQueue&) = delete;
    PendingQueue& operator=(const PendingQueue&) = delete;
    ~PendingQueue() = default;

    struct Pushed {
        bool added = false;       ///< else the same was waiting already, or nothing is left to tell
        std::size_t dropped = 0;  ///< of those that waited; the new one speaks for them
    };
    Pushed Push(PendingChange change, Time now);
    void SetStorm(bool storm) { repeats_.SetStorm(storm); }
    /// What the receiver needs to undo one deletion, as far as that has been seen.
    void SetDeletionCost(std::chrono::nanoseconds cost) { deletion_cost_ = cost; }
    std::size_t Size() const { return known_.size(); }

    /// Lets go what has been held back for long enough; how many changes it was.
    std::size_t Settle(Time now);

    /// Where many names of a directory are gone, puts a change of the directory ahead of the
    /// deletions that were let go; how many directories it was.
    std::size_t AddRepairs(Time now);

    /// When there is something for Settle to do; none: not before something else happens.
    std::optional<Time> NextDue() const;

    /// What is to be posted now, or null. Deletions, unless `deletions_too`, only as far as
    /// something else has to follow them. Valid until the next call of anything here.
    const PendingChange* Next(bool deletions_too);
    /// Takes out what Next gave.
    void Pop();

    /// Drops what waits for watches that were taken off; how many it was.
    std::size_t DropRevoked();

  private:
    enum Lane : std::uint8_t {
        kContents,
        kDirectories,
        kReleased,
        kHeld,
        kRepeats,
        kHot,  ///< contents of files that are rewritten all the time
        kLanes
    };

    struct Entry {
        PendingChange change;
        std::size_t hash = 0;
        Lane lane = kContents;
        bool put_back = false;  ///< has waited for a directory above it
        Time pushed{};
        std::uint64_t serial = 0;            ///< of its coming
        std::optional<std::uint64_t> after;  ///< what came up to this serial goes first
        Time due{};             ///< of a directory: when `after` is to be set; of a repeat: its end
        Time last_due{};        ///< of a repeat: it is not put off beyond that
        bool repeated = false;  ///< has come again while it waited
    };
    using Entries = std::list<Entry>;
    struct Hash {
        std::size_t operator()(const Entries::iterator& entry) const { return entry->hash; }
    };
    struct Equal {
        bool operator()(const Entries::iterator& one, const Entries::iterator& other) const;
    };

    static std::size_t HashOf(const PendingChange& change);
    static std::size_t PathHash(const Entry& entry);
    static Lane LaneOf(const PendingChange& change);
    static bool Concerns(const Entry& entry);
    static bool IsTemporary(const PendingChange& change);
    void Place(Entry& entry, Time now);
    void NoteRepeat(Entries::iterator entry, Time now);
    bool HasContents() const;
    Entries::iterator FirstContent();
    std::size_t DropWaiting(const Entry& deletion, std::initializer_list<std::uint32_t> masks);
    void NoteDirectory(Entries::iterator entry);
    void Release();
    void ReleaseRepeats(Time now);
    Entries::iterator Choose(bool deletions_too);
    bool MayGo(Lane lane) const;
    bool Precedes(Lane lane, const Entry& entry) const;
    const Entries::iterator* TopmostAbove(const PendingChange& change, bool or_itself) const;
    Entries::iterator Remove(Entries::iterator entry);

    const NamesBelow names_below_;
    std::array<Entries, kLanes> lanes_;
    std::unordered_set<Entries::iterator, Hash, Equal> known_;
    Entries incoming_;  ///< one, not known yet
    Entries probe_;     ///< one, to look others up by
    /// The last waiting arrival or deletion of each directory, by path.
    std::unordered_map<std::string_view, Entries::iterator> directories_;
    Entries::iterator next_;
    DeletionDebounce hold_;
    std::chrono::nanoseconds deletion_cost_ = DeletionDebounce::kUsualCost;
    ModificationDebounce repeats_;
    HotFiles hot_files_;
    unsigned int turns_before_hot_ = 3;
    Time settled_{};
    std::uint64_t serial_ = 0;
    std::uint8_t last_lane_ = kContents;  ///< that something went out of
};

}  // namespace Engine::FileNotify
