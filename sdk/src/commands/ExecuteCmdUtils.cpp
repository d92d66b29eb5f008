// Runs commands on the caller's thread. Owns nothing: RunningCommand owns the command,
// CommandEnvironment its environment, CommandHandlers its handler.
#include "sdk/commands/ExecuteCmdUtils.h"

#include <algorithm>
#include <utility>

#include "commands/CommandEnvironment.h"
#include "commands/CommandHandlers.h"
#include "sdk/commands/RunningCommand.h"

namespace SDK {

int ExecuteCmdUtils::ExecuteCmd(const std::string& command, std::string& output,
                                std::size_t max_output) {
    int exit_code = -1;
    const int result = RunningCommand(command).Wait(exit_code, output, max_output);
    return result == 0 ? exit_code : result;
}

int ExecuteCmdUtils::ExecuteCmd(const std::string& program,
                                const std::vector<std::string>& arguments, int timeout_ms,
                                int& exit_code, std::string& output, std::size_t max_output) {
    std::vector<std::string> words{program};
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

void ExecuteCmdUtils::SetProgramHandler(const std::string& program, CommandHandler handler) {
    CommandHandlers::Set(program, std::move(handler));
}

}  // namespace SDK
