#pragma once

#include <sys/types.h>

#include <csignal>
#include <string>
#include <vector>

#include "support/AgentProcess.h"

namespace test {

/// A child process of the test; the destructor kills it.
class Child {
  public:
    Child() = default;
    ~Child() { Kill(); }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    /// The output goes to the file `output`.
    void Start(const std::vector<std::string>& words, const std::string& output);
    void Kill() { Stop(SIGKILL); }
    int Stop(int signal = SIGTERM);  ///< the exit code; -1: none runs, or it was killed
    bool IsRunning() const { return pid_ > 0; }
    pid_t Pid() const { return pid_; }

  private:
    pid_t pid_ = -1;
};

/// Runs the words without a shell.
CommandResult RunWords(const std::vector<std::string>& words);

}  // namespace test
