#pragma once

#include <chrono>
#include <functional>

namespace Bench {

using Clock = std::chrono::steady_clock;
using std::chrono::microseconds;
using std::chrono::milliseconds;

/// Every wait throws this after SIGINT or SIGTERM, so that destructors end all processes before the
/// temporary directory is removed.
struct Interrupted {};

/// Makes SIGINT and SIGTERM end waits instead of the process, and sets the timer slack to its
/// minimum.
void PrepareWaits();

/// Sleeps; throws Interrupted.
void Pause(microseconds time);

/// Waits until `fd` is readable or the time has passed. Throws Interrupted.
void AwaitReadable(int fd, milliseconds time);

/// Polls `done` every `step` until it is true; false after `deadline`. Throws Interrupted.
bool WaitUntil(milliseconds deadline, microseconds step, const std::function<bool()>& done);

double MsBetween(Clock::time_point from, Clock::time_point to);
inline double MsSince(Clock::time_point start) {
    return MsBetween(start, Clock::now());
}

}  // namespace Bench
