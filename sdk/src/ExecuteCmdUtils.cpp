// Runs commands and waits for them on the caller's thread. Keeps nothing: the command is
// RunningCommand's, its environment CommandEnvironment's, the decision whether a line needs a shell
// CommandLine's.
#include "sdk/ExecuteCmdUtils.h"

#include <algorithm>
#include <optional>

#include "CommandEnvironment.h"
#include "CommandLine.h"
#include "sdk/RunningCommand.h"

namespace SDK {

namespace {

using Words = std::vector<std::string>;

constexpr const char* kShell = "/bin/sh";

}  // namespace

int ExecuteCmdUtils::ExecuteCmd(const std::string& command, std::string& output,
                                std::size_t max_output) {
    output.clear();
    if (command.find('\0') != std::string::npos) return kStartFailed;
    const Words words = SplitPlainCommand(command);
    std::optional<RunningCommand> running;
    if (!words.empty()) running.emplace(words, RunningCommand::kNoLimit);
    // What cannot be started is left to the shell as well: its words and its code tell why, and it
    // can run a script without an interpreter line.
    if (!running || running->CouldNotStart()) {
        running.emplace(Words{kShell, "-c", CommandEnvironment::ShellLine(command)},
                        RunningCommand::kNoLimit);
    }
    int exit_code = -1;
    const int result = running->Wait(exit_code, output, max_output);
    return result == 0 ? exit_code : result;
}

int ExecuteCmdUtils::ExecuteCmd(const std::string& program,
                                const std::vector<std::string>& arguments, int timeout_ms,
                                int& exit_code, std::string& output, std::size_t max_output) {
    Words words{program};
    words.insert(words.end(), arguments.begin(), arguments.end());
    return RunningCommand(words, std::max(timeout_ms, 0)).Wait(exit_code, output, max_output);
}

void ExecuteCmdUtils::SetSearchPath(const std::string& path) {
    CommandEnvironment::SetSearchPath(path);
}

void ExecuteCmdUtils::SetProgramEnvironment(const std::string& program,
                                            const std::vector<std::string>& variables) {
    CommandEnvironment::SetProgramVariables(program, variables);
}

}  // namespace SDK
