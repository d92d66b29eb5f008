#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "sdk/commands/CommandHandler.h"
#include "sdk/commands/CommandLimits.h"

namespace SDK {

class ChildProcess;

/// An external command that goes on while its starter does something else; what a command gets is
/// said in ExecuteCmdUtils, which is for those that are waited for at once. Killed with its group
/// when nobody has waited for it. One thread.
class RunningCommand {
  public:
    static constexpr int kNoLimit = -1;

    /// Starts `arguments[0]` (an absolute path), without a shell. The time of `timeout_ms` begins
    /// now; it counts only for Wait. Does not start when the thread is interrupted. Blocks only
    /// where the program has a handler, for as long as that works. The output of a command that
    /// cannot be started says why.
    RunningCommand(const std::vector<std::string>& arguments, int timeout_ms,
                   const CommandLimits& limits = {});
    /// Starts a command line, with a shell where it needs one. No time limit but the thread's
    /// CommandTimeLimit, which counts in the other form too when `timeout_ms` is kNoLimit.
    explicit RunningCommand(const std::string& line);
    ~RunningCommand();
    RunningCommand(const RunningCommand&) = delete;
    RunningCommand& operator=(const RunningCommand&) = delete;

    /// Blocks until the command has ended or its time is up, and kills it then. Nobody reads the
    /// output before: a command that writes more than a pipe holds (64 KiB) waits for this. 0 when
    /// it ran to its end (the code is then in `exit_code`), else one of the negative results of
    /// ExecuteCmdUtils (`exit_code` is -1). Once only.
    int Wait(int& exit_code, std::string& output, std::size_t max_output);

  private:
    void Start(const std::vector<std::string>& arguments);
    void StartProgram(const std::vector<std::string>& arguments,
                      const std::vector<std::string>& environment,
                      const std::vector<FileDescriptor>& inherited);
    void Refuse(const std::string& why);

    const std::int64_t deadline_ms_;
    const CommandLimits limits_;
    std::unique_ptr<ChildProcess> child_;
    std::optional<CommandAnswer> answer_;  ///< what stands for a process: kDone or kRefused
    bool is_interrupted_ = false;
};

}  // namespace SDK
