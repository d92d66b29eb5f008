#pragma once

#include <cstddef>
#include <string>

namespace Bench {

/// The least that watching a tree takes: open a directory, put a watch of `inotify` on it, list it,
/// go on with those in it. Nothing is remembered. `threads`: 1 or more that share the work. The
/// number of directories that are watched then.
std::size_t RawWalk(int inotify, const std::string& root, int threads);

}  // namespace Bench
