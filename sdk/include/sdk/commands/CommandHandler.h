#pragma once

#include <functional>
#include <string>
#include <vector>

#include "sdk/files/FileDescriptor.h"

namespace SDK {

/// What a handler makes of one command.
struct CommandAnswer {
    enum class Kind {
        kDone,     ///< the handler has done the work itself; nothing is started
        kRun,      ///< a program is to run
        kRefused,  ///< nothing is to run: the result is kStartFailed, `output` says why
    };
    Kind kind = Kind::kRun;
    int exit_code = 0;                   ///< kDone
    std::string output;                  ///< kDone, kRefused
    std::vector<std::string> arguments;  ///< kRun: what to run instead; empty: as given
    /// kRun: the program gets them as its descriptors 3, 4, ... in this order, and no others.
    std::vector<FileDescriptor> inherited;
};

/// Carries out the commands of one program in the agent itself, or says how they are to be run, as
/// a shell does with its built-ins. Gets the whole argument vector, the program first. Set by
/// ExecuteCmdUtils::SetProgramHandler.
///
/// Called on the thread that starts the command, several at the same time, with no lock held; it
/// may block for as long as the work takes and must itself heed the thread's CommandInterrupter.
/// An exception counts as kRefused.
using CommandHandler = std::function<CommandAnswer(const std::vector<std::string>& arguments)>;

}  // namespace SDK
