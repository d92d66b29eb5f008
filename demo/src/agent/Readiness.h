#pragma once

#include <ostream>
#include <string>

namespace Demo {

struct ReadinessRequest {
    std::string socket;
    std::size_t paths = 1;  ///< required number of protected paths
    int deadline_ms = 0;    ///< 0: none
};

/// Blocks until an agent answers; false with the reason in `out` when none does.
bool WaitForAnswer(const ReadinessRequest& request, std::ostream& out);

/// Blocks until every directory of the protected paths is watched and the local backup is complete.
/// Prints the current state to `out` whenever it changes.
bool WaitUntilReady(const ReadinessRequest& request, std::ostream& out);

}  // namespace Demo
