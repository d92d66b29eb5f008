#pragma once

#include <signal.h>

#include <ctime>

namespace SDK {

/// Blocks SIGPIPE for the calling thread while the object lives, since OpenSSL writes to sockets
/// without MSG_NOSIGNAL. Discards a SIGPIPE of that time.
class SigPipeGuard {
  public:
    SigPipeGuard() {
        sigset_t waiting;
        sigemptyset(&waiting);
        sigpending(&waiting);
        was_waiting_ = sigismember(&waiting, SIGPIPE) == 1;
        sigemptyset(&pipe_);
        sigaddset(&pipe_, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &pipe_, &before_);
    }
    ~SigPipeGuard() {
        const timespec at_once{};
        if (!was_waiting_) sigtimedwait(&pipe_, nullptr, &at_once);
        pthread_sigmask(SIG_SETMASK, &before_, nullptr);
    }
    SigPipeGuard(const SigPipeGuard&) = delete;
    SigPipeGuard& operator=(const SigPipeGuard&) = delete;

  private:
    bool was_waiting_ = false;
    sigset_t pipe_{};
    sigset_t before_{};
};

}  // namespace SDK
