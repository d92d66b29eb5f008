#pragma once

#include <cstddef>
#include <string>

namespace Bench {

/// The minimal work of watching a tree: opens each directory, adds a watch to `inotify` and lists
/// it. Stores no names. `threads` is at least 1. Returns the number of watched directories.
std::size_t RawWalk(int inotify, const std::string& root, int threads);

}  // namespace Bench
