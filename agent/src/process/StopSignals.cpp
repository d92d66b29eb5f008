#include "process/StopSignals.h"

#include <pthread.h>

#include <cerrno>

namespace Agent {

StopSignals::StopSignals() {
    sigemptyset(&signals_);
    sigaddset(&signals_, SIGTERM);
    sigaddset(&signals_, SIGINT);
    sigaddset(&signals_, SIGHUP);
    pthread_sigmask(SIG_BLOCK, &signals_, nullptr);
    std::signal(SIGPIPE, SIG_IGN);
}

int StopSignals::Wait() const {
    int number = 0;
    do {
        number = sigwaitinfo(&signals_, nullptr);
    } while (number < 0 && errno == EINTR);
    return number;
}

}  // namespace Agent
