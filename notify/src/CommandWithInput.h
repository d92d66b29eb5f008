#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace Notify {

/// What became of a command.
struct CommandResult {
    std::string error;   ///< "ended with code 75: ..."; empty: it ended with code 0
    std::string output;  ///< its beginning; raw
};

/// Runs `words[0]` (an absolute path) without a shell, with `input` as its standard input, for at
/// most `timeout_ms`. Blocks; ends early when the thread's CommandInterrupter is interrupted.
CommandResult RunWithInput(const std::vector<std::string>& words, const std::string& input,
                           int timeout_ms, std::size_t max_output);

}  // namespace Notify
