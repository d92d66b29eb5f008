#pragma once

#include <sys/stat.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <ctime>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "base/SentrelDirRule.h"
#include "progress/HeldObjects.h"
#include "progress/OpenObjects.h"

namespace Engine {

/// Records which protected paths have a complete local backup copy, and which of their objects have
/// none. Until a path is complete, an object without a copy may just not have been copied yet: it
/// must not be taken for foreign.
///
/// A round is the time from a policy, a start or the end of a pause to the next one. A path becomes
/// complete once in a round and is not copied again in it. An object that could not be copied is
/// called open: it is neither deleted nor restored, and does not keep its path from being complete.
/// So is an object that is held: it differs from the approved state, and an operator must decide.
///
/// Policies and the work-time gate start a round, the backup task notes what it has copied, the
/// inotify task asks. Owned by ModuleState. Thread-safe.
class BackupProgress {
  public:
    /// Starts a new round: no copy is complete, and one that is being made does not count.
    void Restart();

    /// The number of the present round.
    std::uint64_t Round() const;

    /// To be called right before a copy begins, when no other is being made. Returns the present
    /// round.
    std::uint64_t BeginCopy();

    /// Forgets the copy of the rule's path: it is copied once more in this round, as at its begin.
    void Renew(const SentrelDirRule& rule);

    /// When the round's first copy began, by the clock that stamps files, or the rule's path was
    /// renewed; none before the first copy.
    std::optional<std::timespec> Begin(const SentrelDirRule& rule) const;

    /// Notes that a copy begun in `round` is complete except for the objects `open`, and that it
    /// has the extended attributes of these kinds (SDK::AttributeKind). False when that round is
    /// over.
    bool NoteComplete(const SentrelDirRule& rule, std::uint64_t round, OpenObjects open = {},
                      unsigned attribute_kinds = 0);

    bool IsComplete(const SentrelDirRule& rule) const;

    /// The kinds of extended attributes that the rule's copies have; none before they are complete
    /// in this round: copies of an older version of the agent lack attributes.
    unsigned AttributeKinds(const SentrelDirRule& rule) const;

    /// The backup copy with these attributes was made in the present round, and since the rule's
    /// path was renewed.
    bool IsOfThisRound(const SentrelDirRule& rule, const struct stat& copy) const;

    /// The object is open. `path` as in events; a trailing "/" is ignored. Never true of the
    /// protected path itself. Cheap while no path has open objects; may read the copy's directory
    /// where there are very many.
    bool IsOpen(const SentrelDirRule& rule, const std::string& path) const;

    /// The object, or something below it, is open: deleting or mirroring `path` as a whole would
    /// destroy what must stay. `path` as above.
    bool HasOpenIn(const SentrelDirRule& rule, const std::string& path) const;

    /// The first `most` open objects.
    std::vector<OpenObjects::Entry> OpenEntries(const SentrelDirRule& rule, std::size_t most) const;
    std::size_t OpenCount(const SentrelDirRule& rule) const;

    /// Notes that an open object was tried again and `rest` of it is still open. Does nothing when
    /// `round` is over.
    void NoteTried(const SentrelDirRule& rule, std::uint64_t round, const std::string& below,
                   const OpenObjects& rest);

    // Held objects. Each does nothing for a path that is not complete.

    /// Leaves the object as it is from now on; `below` as in HeldObjects.
    void Hold(const SentrelDirRule& rule, const std::string& below, bool with_content);
    /// Releases `below` and all below it.
    void Release(const SentrelDirRule& rule, const std::string& below);
    /// `path` as in IsOpen. Cheap while nothing is held.
    bool IsHeld(const SentrelDirRule& rule, const std::string& path) const;
    std::size_t HeldCount(const SentrelDirRule& rule) const;
    /// The first `most`, relative to the protected path.
    std::vector<std::string> HeldPaths(const SentrelDirRule& rule, std::size_t most) const;

    /// The path is being compared with its approved state: what is held is not known yet.
    void SetChecking(const SentrelDirRule& rule, bool checking);
    bool IsChecking(const SentrelDirRule& rule) const;

    // Open objects are tried again after kFirstRest; each further rest is doubled, up to
    // kLongestRest.
    static constexpr std::chrono::seconds kFirstRest{60};
    static constexpr std::chrono::seconds kLongestRest{3600};

    /// True when the rule's open objects are due; this also sets the next time.
    bool TakeDue(const SentrelDirRule& rule, std::chrono::steady_clock::time_point now);

    /// All open objects are due at once.
    void RetrySoon();

  private:
    using Key = std::pair<std::string, std::string>;  // what is copied, and where to
    struct Complete {
        OpenObjects open;
        HeldObjects held;
        bool checking = false;
        std::chrono::steady_clock::time_point next_try;
        std::chrono::seconds rest{};
        unsigned attribute_kinds = 0;
    };

    const Complete* Find(const SentrelDirRule& rule) const;
    Complete* Find(const SentrelDirRule& rule);
    std::optional<std::timespec> BeginOf(const SentrelDirRule& rule) const;
    const OpenObjects* OpenOf(const SentrelDirRule& rule) const;
    void CountOpen();

    mutable std::mutex mutex_;  ///< guards all below but the atomic
    std::uint64_t round_ = 0;
    std::optional<std::timespec> begin_;
    std::map<Key, std::timespec> renewed_;
    std::map<Key, Complete> complete_;
    std::atomic<bool> has_open_{false};  ///< open, held or being checked
};

}  // namespace Engine
