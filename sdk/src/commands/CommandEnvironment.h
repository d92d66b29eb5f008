#pragma once

#include <string>
#include <vector>

namespace SDK {

/// What commands get for an environment: built, never inherited. Process-wide; any thread.
class CommandEnvironment {
  public:
    /// As ExecuteCmdUtils tells.
    static void SetSearchPath(const std::string& path);
    static void SetProgramVariables(const std::string& program,
                                    const std::vector<std::string>& variables);

    /// The whole environment of `program`.
    static std::vector<std::string> Of(const std::string& program);

    /// The command line for a shell: with assignments before its first program, the variables reach
    /// that one alone, and neither the shell nor what else the line runs.
    static std::string ShellLine(const std::string& command);
};

}  // namespace SDK
