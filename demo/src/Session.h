#pragma once

#include <chrono>
#include <ostream>
#include <string>
#include <vector>

namespace Demo {

/// What to attack and how to watch it. Paths are absolute and without a trailing "/".
struct SessionOptions {
    std::string site;
    std::string file;     ///< a protected file apart from the site; empty: none
    std::string scratch;  ///< an empty folder on the site's file system, outside of the site
    std::string socket;   ///< the agent's control socket
    std::vector<std::string> excluded_subdirs;
    std::vector<std::string> excluded_suffixes;
    std::chrono::milliseconds deadline{
        15000};         ///< for each attack to be undone, and again reported
    bool json = false;  ///< one JSON object a line instead of the table
};

/// The whole scripted attack, written to `out` as it happens. 0: everything was undone and
/// reported; 1: not everything; 2: it could not be carried out.
int RunSession(const SessionOptions& options, std::ostream& out);

}  // namespace Demo
