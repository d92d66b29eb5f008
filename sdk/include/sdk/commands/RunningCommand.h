#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "sdk/commands/CommandHandler.h"
#include "sdk/commands/CommandLimits.h"
#include "sdk/files/FileDescriptor.h"

namespace SDK {

class ChildProcess;

/// An external command that runs while its starter does other work. ExecuteCmdUtils describes its
/// environment. The destructor kills it with its process group when Wait was not called. Not
/// thread-safe.
class RunningCommand {
  public:
    static constexpr int kNoLimit = -1;

    /// Starts `arguments[0]` (an absolute path), without a shell; `timeout_ms` counts from now and
    /// takes effect in Wait. Does not start when the thread is interrupted. Blocks only while the
    /// program's handler works. When it cannot start, the output says why. `input` becomes its
    /// standard input; not open: /dev/null.
    RunningCommand(const std::vector<std::string>& arguments, int timeout_ms,
                   const CommandLimits& limits = {}, FileDescriptor input = {});
    /// Starts a command line, with a shell where it needs one. Only the thread's CommandTimeLimit
    /// limits the time, as it does in the other form with kNoLimit.
    explicit RunningCommand(const std::string& line);
    ~RunningCommand();
    RunningCommand(const RunningCommand&) = delete;
    RunningCommand& operator=(const RunningCommand&) = delete;

    /// Blocks until the command ends or its time is over; then it is killed. A command that writes
    /// more than a pipe holds (64 KiB) blocks until Wait reads its output. Returns 0 when it ended
    /// by itself, with its code in `exit_code`; else a negative result of ExecuteCmdUtils, with -1
    /// in `exit_code`. Call once.
    int Wait(int& exit_code, std::string& output, std::size_t max_output);

  private:
    void Start(const std::vector<std::string>& arguments);
    void StartProgram(const std::vector<std::string>& arguments,
                      const std::vector<std::string>& environment,
                      const std::vector<FileDescriptor>& inherited);
    void Refuse(const std::string& why);

    const std::int64_t deadline_ms_;
    const CommandLimits limits_;
    const FileDescriptor input_;
    std::unique_ptr<ChildProcess> child_;
    std::optional<CommandAnswer> answer_;  ///< kDone or kRefused: there is no process
    bool is_interrupted_ = false;
};

}  // namespace SDK
