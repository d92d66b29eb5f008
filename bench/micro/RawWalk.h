#pragma once

#include <cstddef>
#include <string>

namespace bench {

/// The least that watching a tree takes: open a directory, put an inotify watch on it, list it, go
/// on with those in it. Nothing is remembered. `threads`: 1 or more that share the work. The number
/// of directories; the watches are gone on return, `milliseconds` is what it took without that.
std::size_t RawWalk(const std::string& root, int threads, double& milliseconds);

}  // namespace bench
