// Owns the flag that a signal sets. All waits of the driver use these functions.
#include "base/Time.h"

#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>

#include <atomic>
#include <cerrno>
#include <ctime>

namespace Bench {
namespace {

std::atomic<bool> stop_asked{false};

void AskStop(int /*signal*/) {
    stop_asked = true;
}

}  // namespace

void PrepareWaits() {
    struct sigaction action {};
    action.sa_handler = AskStop;
    ::sigaction(SIGINT, &action, nullptr);
    ::sigaction(SIGTERM, &action, nullptr);
    ::sigaction(SIGHUP, &action, nullptr);
    ::signal(SIGPIPE, SIG_IGN);
    ::prctl(PR_SET_TIMERSLACK, 1UL);
}

void Pause(microseconds time) {
    const auto nanoseconds = std::chrono::nanoseconds(time).count();
    timespec wait{static_cast<time_t>(nanoseconds / 1000000000), nanoseconds % 1000000000};
    while (!stop_asked && ::nanosleep(&wait, &wait) != 0 && errno == EINTR) continue;
    if (stop_asked) throw Interrupted{};
}

void AwaitReadable(int fd, milliseconds time) {
    pollfd wait{fd, POLLIN, 0};
    if (!stop_asked) ::poll(&wait, 1, static_cast<int>(time.count()));
    if (stop_asked) throw Interrupted{};
}

bool WaitUntil(milliseconds deadline, microseconds step, const std::function<bool()>& done) {
    const auto end = Clock::now() + deadline;
    while (!done()) {
        if (Clock::now() >= end) return false;
        Pause(step);
    }
    return true;
}

double MsBetween(Clock::time_point from, Clock::time_point to) {
    return std::chrono::duration<double, std::milli>(to - from).count();
}

}  // namespace Bench
