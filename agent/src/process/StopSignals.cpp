// Owns the signal mask of the process and the signalfd. Must not stop anything (AgentProcess
// does). Runs on the main thread.
#include "process/StopSignals.h"

#include <poll.h>
#include <pthread.h>
#include <sys/signalfd.h>

#include <array>
#include <cerrno>

namespace Agent {

StopSignals::StopSignals() {
    sigemptyset(&signals_);
    sigaddset(&signals_, SIGTERM);
    sigaddset(&signals_, SIGINT);
    sigaddset(&signals_, SIGHUP);
    pthread_sigmask(SIG_BLOCK, &signals_, nullptr);
    pending_.Reset(::signalfd(-1, &signals_, SFD_CLOEXEC));
    std::signal(SIGPIPE, SIG_IGN);
}

int StopSignals::Wait() const {
    int number = 0;
    do {
        number = sigwaitinfo(&signals_, nullptr);
    } while (number < 0 && errno == EINTR);
    return number;
}

bool StopSignals::ArriveBefore(int descriptor) const {
    std::array<pollfd, 2> events{{{pending_.Get(), POLLIN, 0}, {descriptor, POLLIN, 0}}};
    while (::poll(events.data(), events.size(), -1) < 0 && errno == EINTR) {
    }
    return events[0].revents != 0;
}

}  // namespace Agent
