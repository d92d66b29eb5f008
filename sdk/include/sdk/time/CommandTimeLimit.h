#pragma once

#include <chrono>

namespace SDK {

/// Bounds the time of the external commands of one thread that have no limit of their own: such a
/// command is killed with its group when it has run for `period`, and its result is kTimedOut.
///
/// Counts for every command that the thread that made it starts while the object lives; nests.
class CommandTimeLimit {
  public:
    explicit CommandTimeLimit(std::chrono::milliseconds period);
    ~CommandTimeLimit();
    CommandTimeLimit(const CommandTimeLimit&) = delete;
    CommandTimeLimit& operator=(const CommandTimeLimit&) = delete;

    /// The calling thread's period; zero when there is none.
    static std::chrono::milliseconds Current();

  private:
    std::chrono::milliseconds previous_;
};

}  // namespace SDK
