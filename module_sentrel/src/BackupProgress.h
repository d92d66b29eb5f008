#pragma once

#include <SentrelDirRule.h>
#include <sys/stat.h>

#include <cstdint>
#include <ctime>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <utility>

namespace Engine {

/// Which protected paths have a complete local backup copy. Until then what is missing in the copy
/// may just not have been copied yet, and must not be taken for foreign.
///
/// Policies and the work-time gate start it anew, the backup task notes its successes, the inotify
/// task asks. Any thread.
class BackupProgress {
  public:
    static BackupProgress& Instance();

    /// From now on no copy counts as complete; one that is being made does not count any more.
    void Restart();

    /// The number of the present round.
    std::uint64_t Round() const;

    /// Called right before a copy is begun, when no other is being made; the present round.
    std::uint64_t BeginCopy();

    /// A copy that was begun in `round` is complete; false when that round is over.
    bool NoteComplete(const SentrelDirRule& rule, std::uint64_t round);

    bool IsComplete(const SentrelDirRule& rule) const;

    /// The backup copy with these attributes was made, or made anew, by a copying that was begun in
    /// the present round.
    bool IsOfThisRound(const struct stat& copy) const;

  private:
    using Key = std::pair<std::string, std::string>;  // what is copied, and where to

    BackupProgress() = default;

    mutable std::mutex mutex_;  ///< guards all below
    std::uint64_t round_ = 0;
    /// Of the round's first copying, by the clock that files are stamped with; none before it.
    std::optional<std::timespec> begin_;
    std::set<Key> complete_;
};

}  // namespace Engine
