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
#include "progress/OpenObjects.h"

namespace Engine {

/// Which protected paths have a complete local backup copy, and which of their objects have none.
/// Until a path is complete, what its copy lacks may just not have been copied yet, and must not be
/// taken for foreign.
///
/// A round is the time from a policy, a start or the end of a pause to the next one. A path is
/// complete once in a round and is not copied again in it. Objects that could not be copied do not
/// keep a path from being complete: they are open, which means neither deleted nor restored.
///
/// Policies and the work-time gate start a round, the backup task notes what it has copied, the
/// inotify task asks. Any thread.
class BackupProgress {
  public:
    /// From now on no copy counts as complete; one that is being made does not count any more.
    void Restart();

    /// The number of the present round.
    std::uint64_t Round() const;

    /// Called right before a copy is begun, when no other is being made; the present round.
    std::uint64_t BeginCopy();

    /// When the round's first copy was begun, by the clock that files are stamped with; none before
    /// it.
    std::optional<std::timespec> Begin() const;

    /// A copy that was begun in `round` is complete except for the objects `open`; false when that
    /// round is over.
    bool NoteComplete(const SentrelDirRule& rule, std::uint64_t round, OpenObjects open = {});

    bool IsComplete(const SentrelDirRule& rule) const;

    /// The backup copy with these attributes was made, or made anew, by a copying that was begun in
    /// the present round.
    bool IsOfThisRound(const struct stat& copy) const;

    /// The object is open: to be reported, neither deleted nor restored. `path` as in events, a
    /// trailing "/" is ignored. Never true of the protected path itself. Costs next to nothing
    /// while no path has open objects; may look at the copy where there are very many.
    bool IsOpen(const SentrelDirRule& rule, const std::string& path) const;

    /// The object, or something below it, is open: deleting or mirroring `path` as a whole would
    /// destroy what must stay. `path` as above.
    bool HasOpenIn(const SentrelDirRule& rule, const std::string& path) const;

    /// The first `most` open objects.
    std::vector<OpenObjects::Entry> OpenEntries(const SentrelDirRule& rule, std::size_t most) const;
    std::size_t OpenCount(const SentrelDirRule& rule) const;

    /// An open object has been tried again, and `rest` of it is still open; nothing when `round` is
    /// over.
    void NoteTried(const SentrelDirRule& rule, std::uint64_t round, const std::string& below,
                   const OpenObjects& rest);

    // Open objects are tried again after a minute, then less and less often.
    static constexpr std::chrono::seconds kFirstRest{60};
    static constexpr std::chrono::seconds kLongestRest{3600};

    /// True when the rule's open objects are to be tried again; the next time is set then.
    bool TakeDue(const SentrelDirRule& rule, std::chrono::steady_clock::time_point now);

    /// All open objects are due at once.
    void RetrySoon();

  private:
    using Key = std::pair<std::string, std::string>;  // what is copied, and where to
    struct Complete {
        OpenObjects open;
        std::chrono::steady_clock::time_point next_try;
        std::chrono::seconds rest{};
    };

    const OpenObjects* OpenOf(const SentrelDirRule& rule) const;
    void CountOpen();

    mutable std::mutex mutex_;  ///< guards all below but the atomic
    std::uint64_t round_ = 0;
    std::optional<std::timespec> begin_;
    std::map<Key, Complete> complete_;
    std::atomic<bool> has_open_{false};
};

}  // namespace Engine
