#pragma once

#include <chrono>
#include <ostream>
#include <string>
#include <vector>

namespace Demo {

/// What to attack and how to observe it. Paths are absolute and without a trailing "/".
struct SessionOptions {
    std::string site;
    std::string file;     ///< a protected file outside the site; empty: none
    std::string scratch;  ///< an empty folder outside the site, on its file system
    std::string socket;   ///< the agent's control socket
    std::vector<std::string> excluded_subdirs;
    std::vector<std::string> excluded_suffixes;
    std::chrono::milliseconds deadline{
        15000};         ///< for each attack to be undone, and again reported
    bool json = false;  ///< one JSON object a line instead of the table
};

/// Runs the whole scripted attack and prints it to `out`. Returns 0 when everything was undone and
/// reported, 1 when not, 2 when it could not run.
int RunSession(const SessionOptions& options, std::ostream& out);

}  // namespace Demo
