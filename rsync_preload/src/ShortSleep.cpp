// At its end rsync checks whether its children have ended, sleeps 20 ms and checks again. Its
// SIGCHLD handler has reaped the child by then, but the sleep continues. So a copy that is done
// after 5 ms takes 25 or 45 ms. This library is loaded into the agent's rsync only; it ends a short
// sleep as soon as a child has ended. Without it rsync is only slower.
//
// Owns the count of ended children. Must not reap a child: rsync does, and its calls are counted,
// also those in its signal handler. Runs on rsync's only thread; the counts are atomic.
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>

#include <atomic>
#include <cerrno>

namespace {

constexpr long kNanosPerSecond = 1000000000;
constexpr long kLongestNap = kNanosPerSecond / 10;  // longer sleeps have other purposes

std::atomic<unsigned int> ended{0};    // children that this process has reaped
std::atomic<unsigned int> noticed{0};  // those of them that have ended a sleep

/// Programs that rsync starts (a remote shell, a script of the daemon) must not load this library.
__attribute__((constructor)) void LeaveEnvironment() {
    ::unsetenv("LD_PRELOAD");
}

/// Each child ends one sleep only, so that no loop of the caller can spin.
bool NoticeEnded() {
    const unsigned int now = ended.load();
    return noticed.exchange(now) != now;
}

bool IsShort(const timespec* time) {
    return time != nullptr && time->tv_sec == 0 && time->tv_nsec > 0 &&
           time->tv_nsec <= kLongestNap;
}

timespec Now() {
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return now;
}

/// The rest of a sleep of `time` that began at `start`.
timespec Remaining(const timespec& time, const timespec& start) {
    const timespec now = Now();
    const long passed = (now.tv_sec - start.tv_sec) * kNanosPerSecond + now.tv_nsec - start.tv_nsec;
    return {0, passed < time.tv_nsec ? time.tv_nsec - passed : 0};
}

/// Like nanosleep(2), but returns 0 as soon as a child has ended. SIGCHLD is blocked, so that a
/// child reaped after the check of the count still ends the sleep.
int ShortSleep(const timespec& time, timespec* remaining) {
    sigset_t child;
    sigset_t before;
    sigemptyset(&child);
    sigaddset(&child, SIGCHLD);
    ::pthread_sigmask(SIG_BLOCK, &child, &before);
    const timespec start = Now();
    int result = 0;
    int error = 0;
    if (!NoticeEnded() && ::ppoll(nullptr, 0, &time, &before) < 0 && !NoticeEnded()) {
        result = -1;
        error = errno;
        if (remaining != nullptr) *remaining = Remaining(time, start);
    }
    ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
    if (result != 0) errno = error;
    return result;
}

}  // namespace

extern "C" pid_t waitpid(pid_t pid, int* status, int options) {
    const pid_t taken = ::wait4(pid, status, options, nullptr);
    if (taken > 0) ++ended;
    return taken;
}

extern "C" int nanosleep(const timespec* time, timespec* remaining) {
    if (IsShort(time)) return ShortSleep(*time, remaining);
    const int error = ::clock_nanosleep(CLOCK_REALTIME, 0, time, remaining);
    if (error == 0) return 0;
    errno = error;
    return -1;
}
