#pragma once

#include <ostream>
#include <string>

namespace Demo {

struct ReadinessRequest {
    std::string socket;
    std::size_t paths = 1;  ///< how many protected paths there must be
    int deadline_ms = 0;    ///< 0: none
};

/// Waits until an agent answers; when none does, false and the reason in `out`.
bool WaitForAnswer(const ReadinessRequest& request, std::ostream& out);

/// Waits until every protected path is watched to its last directory and the local backup is
/// complete. Says in `out` what it is waiting for whenever that changes.
bool WaitUntilReady(const ReadinessRequest& request, std::ostream& out);

}  // namespace Demo
