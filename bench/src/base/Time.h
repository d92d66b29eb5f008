#pragma once

#include <chrono>
#include <functional>

namespace Bench {

using Clock = std::chrono::steady_clock;
using std::chrono::microseconds;
using std::chrono::milliseconds;

/// Thrown by every wait of this program after SIGINT or SIGTERM, so that what was started is ended
/// in order and the temporary directory can go.
struct Stopped {};

/// From here on SIGINT and SIGTERM end waits instead of the process; timers become exact.
void PrepareWaits();

/// Sleeps; throws Stopped.
void Pause(microseconds time);

/// Until `fd` can be read or the time has passed; throws Stopped.
void AwaitReadable(int fd, milliseconds time);

/// Asks `done` every `step` until it is true; false when `deadline` has passed before. Throws
/// Stopped.
bool WaitUntil(milliseconds deadline, microseconds step, const std::function<bool()>& done);

double MsBetween(Clock::time_point from, Clock::time_point to);
inline double MsSince(Clock::time_point start) {
    return MsBetween(start, Clock::now());
}

}  // namespace Bench
