#pragma once

#include <optional>
#include <string>
#include <vector>

#include "sdk/commands/CommandHandler.h"

namespace SDK {

/// The handlers of single programs. Process-wide; thread-safe.
class CommandHandlers {
  public:
    /// See ExecuteCmdUtils::SetProgramHandler.
    static void Set(const std::string& program, CommandHandler handler);

    /// The answer of the handler of `arguments[0]`; none when the program has no handler.
    static std::optional<CommandAnswer> Ask(const std::vector<std::string>& arguments);

    /// A program with a handler whose name occurs in the line; empty when there is none.
    static std::string NamedIn(const std::string& line);

    /// A program with a handler that begins the line; empty when there is none.
    static std::string Beginning(const std::string& line);
};

}  // namespace SDK
