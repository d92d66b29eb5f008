#pragma once

#include <functional>
#include <string>
#include <vector>

#include "sdk/files/FileDescriptor.h"

namespace SDK {

/// What a handler decides about one command.
struct CommandAnswer {
    enum class Kind {
        kDone,     ///< the handler has done the work itself; nothing is started
        kRun,      ///< a program runs
        kRefused,  ///< nothing runs; the result is kStartFailed, `output` says why
    };
    Kind kind = Kind::kRun;
    int exit_code = 0;                   ///< kDone
    std::string output;                  ///< kDone, kRefused
    std::vector<std::string> arguments;  ///< kRun: what runs instead; empty: the given command
    /// kRun: the program's descriptors 3, 4, ... in this order; it gets no others.
    std::vector<FileDescriptor> inherited;
};

/// Answers the commands of one program, as a shell does with its built-ins: it does their work in
/// the agent, or says what runs instead. Gets the whole argument vector, the program first.
/// Registered with ExecuteCmdUtils::SetProgramHandler.
///
/// Runs on the thread that starts the command, on several threads at a time, with no lock held. May
/// block; it must check the thread's CommandInterrupter itself. An exception counts as kRefused.
using CommandHandler = std::function<CommandAnswer(const std::vector<std::string>& arguments)>;

}  // namespace SDK
