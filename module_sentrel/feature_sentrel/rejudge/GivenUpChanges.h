#pragma once

#include <cstddef>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>

#include "feature_sentrel/event_path/FileChange.h"

namespace Engine {

/// The changes whose retries were given up, one for each path, at most `capacity`. They wait for
/// the next look through their path. Not thread-safe.
class GivenUpChanges {
  public:
    explicit GivenUpChanges(std::size_t capacity) : capacity_(capacity) {}

    /// False when there is no room.
    bool Keep(FileChange change);

    /// All changes of that watch are due.
    void Wake(const std::string& watch_id);

    /// Takes out one that is due.
    std::optional<FileChange> TakeDue();

    std::size_t Size() const { return changes_.size(); }
    void Clear();

  private:
    using Path = std::pair<std::string, std::string>;  ///< watch id, path

    const std::size_t capacity_;
    std::map<Path, FileChange> changes_;
    std::set<Path> due_;
};

}  // namespace Engine
