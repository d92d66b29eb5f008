// Owns the guard's process. Must not hold a fanotify group nor run the guard's code.
#include "watchdog/Watchdog.h"

#include <poll.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <utility>

#include "watchdog/Probe.h"

namespace Sentry {

namespace {

using std::chrono::milliseconds;

constexpr milliseconds kIdle{200};  // how soon a guard that becomes armed is probed
constexpr int kProbesPerLimit = 4;
constexpr milliseconds kStopTime{3000};

milliseconds Since(Probe::Clock::time_point begin) {
    return std::chrono::duration_cast<milliseconds>(Probe::Clock::now() - begin);
}

}  // namespace

Watchdog::Watchdog(pid_t guard, const SharedState& state, std::string probe_file)
    : guard_(guard),
      state_(state),
      probe_file_(std::move(probe_file)),
      ended_(static_cast<int>(::syscall(SYS_pidfd_open, guard, 0))) {}

Watchdog::End Watchdog::Run(int signals) {
    Probe probe(probe_file_);
    End end = End::kDied;
    Probe::Clock::time_point killed_at = Probe::Clock::time_point::max();
    for (;;) {
        const milliseconds limit(state_.answer_ms.load());
        const milliseconds pause = std::max(limit / kProbesPerLimit, milliseconds(1));
        const bool must_probe = state_.is_armed && end == End::kDied;
        pollfd ready[] = {{signals, POLLIN, 0}, {ended_.Get(), POLLIN, 0}};
        const milliseconds wait = must_probe || probe.IsRunning() ? pause : kIdle;
        ::poll(ready, std::size(ready), static_cast<int>(wait.count()));
        if (ready[1].revents != 0) break;
        if (ready[0].revents != 0 && end == End::kDied) {
            end = End::kStopped;
            killed_at = Probe::Clock::now() + kStopTime;
            ::kill(guard_, SIGTERM);
            signals = -1;
        }
        const bool is_late = probe.IsRunning() && Since(probe.Begun()) >= limit;
        if (is_late && end == End::kDied) end = End::kKilled;
        if (is_late || Probe::Clock::now() > killed_at) ::kill(guard_, SIGKILL);
        if (must_probe && !probe.IsRunning() && Since(probe.Begun()) >= pause) probe.Begin();
    }
    Reap();
    return end;
}

void Watchdog::Reap() {
    while (::waitpid(guard_, &status_, 0) < 0 && errno == EINTR) {
    }
}

}  // namespace Sentry
