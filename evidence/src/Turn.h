#pragma once

#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>

namespace Evidence {

/// Makes the agent and a command that removes take turns. A process that is stopped in its turn
/// must not stop the other.
class Turn {
  public:
    /// Waits at most `most` for the turn.
    Turn(int directory, std::chrono::milliseconds most) : directory_(directory) {
        const auto end = std::chrono::steady_clock::now() + most;
        do {
            is_ours_ = ::flock(directory_, LOCK_EX | LOCK_NB) == 0;
        } while (!is_ours_ && (errno == EINTR || errno == EWOULDBLOCK) &&
                 std::chrono::steady_clock::now() < end && ::usleep(kPauseUs) == 0);
    }
    ~Turn() {
        if (is_ours_) ::flock(directory_, LOCK_UN);
    }
    Turn(const Turn&) = delete;
    Turn& operator=(const Turn&) = delete;

    /// False: another process has it (errno).
    bool IsOurs() const { return is_ours_; }

  private:
    static constexpr useconds_t kPauseUs = 1000;

    const int directory_;
    bool is_ours_ = false;
};

}  // namespace Evidence
