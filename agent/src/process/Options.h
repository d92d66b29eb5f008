#pragma once

#include <optional>
#include <string>

namespace Agent {

/// The command line of morvane_agent.
struct Options {
    std::string config_file;  ///< absolute; empty: the installation's
    bool daemon = false;
    bool check = false;
};

/// Empty when the program must end at once with `exit_code`: help or version (0), or wrong
/// arguments. Their text has been printed then.
std::optional<Options> ParseOptions(int argc, const char* const* argv, int& exit_code);

}  // namespace Agent
