#pragma once

#include <string>
#include <vector>

namespace SDK {

/// The environment of commands: built, never inherited. Process-wide; thread-safe.
class CommandEnvironment {
  public:
    /// See ExecuteCmdUtils.
    static void SetSearchPath(const std::string& path);
    static void SetProgramVariables(const std::string& program,
                                    const std::vector<std::string>& variables);

    /// The whole environment of `program`.
    static std::vector<std::string> Of(const std::string& program);

    /// The command line for a shell. Assignments before its first program give the variables to
    /// that program only, not to the shell or the rest of the line.
    static std::string ShellLine(const std::string& command);
};

}  // namespace SDK
