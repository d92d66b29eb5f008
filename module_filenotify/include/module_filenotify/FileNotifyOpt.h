#pragma once

#include <list>
#include <string>

/// The options of a watch request.
// NOLINTNEXTLINE(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp): the agreed name
struct _FileNotifyOpt {
    bool recursive = false;           ///< watch the whole tree, including directories created later
    bool report_directories = false;  ///< deliver events about directories as well
    bool rewatch = false;             ///< watch the root again when it appears or reappears
    std::list<std::string> excluded_suffixes;  ///< do not deliver such files
    std::list<std::string>
        excluded_subdirs;  ///< relative to the path; do not watch or deliver them
    bool remove = false;   ///< remove the watch instead of adding it
};
