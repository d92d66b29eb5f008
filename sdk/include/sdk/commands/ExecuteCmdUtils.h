#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "sdk/commands/CommandHandler.h"

namespace SDK {

/// Runs external commands and waits for them. Thread-safe.
///
/// A command gets its own session and process group, so it cannot prompt on the agent's terminal.
/// It gets /dev/null as standard input, its output pipe and no other descriptor of the agent,
/// default signal handling, and a new environment: PATH (the system's directories), LC_ALL=C and
/// HOME (installation path + "conf/home").
///
/// Standard output and standard error are captured together and read to their end, also beyond the
/// limit. The cost of a start does not depend on the agent's size. A call returns when the started
/// process ends; it does not wait for a daemon that this process leaves behind.
class ExecuteCmdUtils {
  public:
    /// Results that are not an exit code of the command.
    static constexpr int kStartFailed = -1;  ///< also: refused by the program's handler
    static constexpr int kTimedOut = -2;
    static constexpr int kInterrupted = -3;  ///< by the thread's CommandInterrupter
    static constexpr int kKilledBySignal = -4;

    /// Runs one command line as /bin/sh would and keeps the first `max_output` bytes of its output.
    /// Returns the exit code or one of the negative results. Blocks; only the thread's
    /// CommandTimeLimit limits the time. A line of plain and double-quoted words, the program with
    /// a "/", runs without a shell. A line with a NUL byte does not run.
    static int ExecuteCmd(const std::string& command, std::string& output, std::size_t max_output);

    /// Runs `program` (an absolute path) with `arguments`, without a shell, for at most
    /// `timeout_ms`. Returns 0 when it ended by itself, with its code in `exit_code`; else one of
    /// the negative results, with -1 in `exit_code`.
    static int ExecuteCmd(const std::string& program, const std::vector<std::string>& arguments,
                          int timeout_ms, int& exit_code, std::string& output,
                          std::size_t max_output);

    /// Sets the PATH of commands; empty restores the default. Lets a test put replacements first.
    static void SetSearchPath(const std::string& path);

    /// Sets additional or different variables ("NAME=value") for commands whose program is exactly
    /// `program`; an empty list removes them. In a line that needs a shell, only its first program
    /// gets them, and a value that is not a plain word is left out. Takes effect with the next
    /// command. Thread-safe.
    static void SetProgramEnvironment(const std::string& program,
                                      const std::vector<std::string>& variables);

    /// From the next command on, `handler` answers for `program` (exactly this text, the first word
    /// of a command); a null handler ends that. A program with a handler never reaches a shell: a
    /// line that names it and needs one, or whose first word only begins with it, does not run
    /// (kStartFailed, the output says why). A running call of the old handler continues.
    /// Thread-safe.
    static void SetProgramHandler(const std::string& program, CommandHandler handler);
};

}  // namespace SDK
