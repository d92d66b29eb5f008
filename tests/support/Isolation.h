#pragma once

#include <string>

namespace test {

/// Makes what the agent does to the kernel's settings go to the file `stand_in`, or `queue_limit`
/// for the length of inotify's queues, and of the
/// machine's files leaves it none to write but those below `temporary`. The caller lives in a mount
/// namespace of its own. False with errno. Safe between fork and exec.
bool ShieldMachine(const char* stand_in, const char* queue_limit, const char* temporary);

/// Gives the calling process a mount namespace of its own; false with errno.
bool UnshareMounts();

}  // namespace test
