#pragma once

#include <string>

namespace test {

/// Mounts `stand_in` over /etc/sysctl.conf and the watch limit and `queue_limit` over the queue
/// limit, and makes everything outside `temporary` read-only. The caller must be in a mount
/// namespace of its own. On failure returns false and sets errno. Safe between fork and exec.
bool IsolateFiles(const char* stand_in, const char* queue_limit, const char* temporary);

/// Moves the calling process to a new mount namespace. On failure returns false and sets errno.
bool UnshareMounts();

/// A first base class of fixtures, so that all their threads are in a mount namespace of the test.
struct OwnMounts {
    const bool is_own = UnshareMounts();
};

}  // namespace test
