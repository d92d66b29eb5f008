#pragma once

#include <optional>
#include <string>

namespace Agent {

/// What the command line of morvane_agent asks for.
struct Options {
    std::string config_file;  ///< absolute; empty: the one of the installation
    bool daemon = false;
};

/// No options when the program is to end at once, with `exit_code`: help or the version was asked
/// for (0), or the arguments are wrong. What there is to say has been printed then.
std::optional<Options> ParseOptions(int argc, const char* const* argv, int& exit_code);

}  // namespace Agent
