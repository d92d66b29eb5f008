#pragma once

#include <cstddef>
#include <functional>

#include "index/PackedNames.h"

namespace Engine::FileNotify {

/// What a directory holds, "." and ".." excepted.
struct DirListing {
    PackedNames directories;
    PackedNames others;
    /// Read in one portion: no name stands here twice. In several, one that was renamed or made
    /// anew meanwhile may.
    bool is_snapshot = true;

    std::size_t Count() const { return std::size_t{directories.Count()} + others.Count(); }
    void Clear();
};

/// Puts what the directory holds into `listing`. Never follows a link. Calls `between` (may be
/// null) after each further portion, for what must not wait while a huge directory is read. 0, or
/// the errno of what failed; what was read until then is kept. Any thread.
int ListDirectory(int dir_fd, DirListing& listing, const std::function<void()>& between);

}  // namespace Engine::FileNotify
