#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "sdk/commands/CommandHandler.h"

namespace SDK {

/// Runs external commands and waits for them. Any thread.
///
/// A command gets a session and process group of its own, so it cannot ask anything at the agent's
/// terminal; /dev/null as standard input, no descriptor of the agent but its output pipe, default
/// signal handling, and an environment that is built, not inherited: PATH (the system's
/// directories), LC_ALL=C and HOME (installation path + "conf/home"). Standard output and standard
/// error are captured together and read to their end, also past the limit. Starting one costs the
/// same whatever the agent's size. A command ends when the process that was started ends; a daemon
/// that it left behind with its descriptors closed does not hold the call.
class ExecuteCmdUtils {
  public:
    /// Results other than the exit code of the command itself.
    static constexpr int kStartFailed = -1;  ///< or refused by a program's handler
    static constexpr int kTimedOut = -2;
    static constexpr int kInterrupted = -3;  ///< by the thread's CommandInterrupter
    static constexpr int kKilledBySignal = -4;

    /// Runs one command line as /bin/sh would and keeps the first `max_output` bytes of its output.
    /// 0 when it exited with 0, its exit code when that is not 0, or one of the negative results.
    /// No time limit but the thread's CommandTimeLimit. A line that needs no shell (plain and
    /// double-quoted words, the program with a
    /// "/") is run without one; one with a NUL byte is not run.
    static int ExecuteCmd(const std::string& command, std::string& output, std::size_t max_output);

    /// Runs `program` (an absolute path) with `arguments`, without a shell, for at most
    /// `timeout_ms`. 0 when it ran to its end (the code is then in `exit_code`), else one of the
    /// negative results
    /// (`exit_code` is -1).
    static int ExecuteCmd(const std::string& program, const std::vector<std::string>& arguments,
                          int timeout_ms, int& exit_code, std::string& output,
                          std::size_t max_output);

    /// The PATH that commands get; empty takes the default back. Lets a test put stand-ins first.
    static void SetSearchPath(const std::string& path);

    /// Further variables ("NAME=value"), or other values of the usual ones, for commands whose
    /// program is exactly `program`, and for no other; none takes them back. In a line that needs a
    /// shell only its first program counts, and a value that is no plain word is left out there.
    /// Any thread; counts from the next command on.
    static void SetProgramEnvironment(const std::string& program,
                                      const std::vector<std::string>& variables);

    /// From the next command on `handler` is asked before `program` (exactly this text, the first
    /// word of a command) is started; a null handler takes it back. A program that has a handler
    /// never gets to a shell: a line that names it anywhere and needs one, or of which more or less
    /// than the first word is that program, is not run (kStartFailed, the output says why). A call
    /// of the handler that is under way goes on. Any thread.
    static void SetProgramHandler(const std::string& program, CommandHandler handler);
};

}  // namespace SDK
