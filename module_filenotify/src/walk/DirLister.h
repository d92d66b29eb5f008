#pragma once

#include <cstddef>
#include <functional>

#include "index/PackedNames.h"

namespace Engine::FileNotify {

/// The content of a directory without "." and "..". Not thread-safe.
struct DirListing {
    PackedNames directories;
    PackedNames others;
    /// True when one system call read everything, so that names are unique. Otherwise a name that
    /// was renamed or created again meanwhile may appear twice.
    bool is_snapshot = true;

    std::size_t Count() const { return std::size_t{directories.Count()} + others.Count(); }
    void Clear();
};

/// Reads the directory into `listing`. Follows no link. Returns 0, or errno; then `listing` keeps
/// what was read so far. Calls `drain_events`, which may be null, after each system call except the
/// first, so that a huge directory does not delay events. Blocks on disk reads. Thread-safe.
int ListDirectory(int dir_fd, DirListing& listing, const std::function<void()>& drain_events);

}  // namespace Engine::FileNotify
