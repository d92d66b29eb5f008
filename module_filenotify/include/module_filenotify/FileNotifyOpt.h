#pragma once

#include <list>
#include <string>

/// What a watch request asks for beside path and masks.
// NOLINTNEXTLINE(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp): the agreed name
struct _FileNotifyOpt {
    bool recursive = false;           ///< the whole tree, also what appears in it later
    bool report_directories = false;  ///< events about directories are delivered too
    bool rewatch = false;             ///< a root that is gone or not yet there is watched again
    std::list<std::string> excluded_suffixes;  ///< file names ending so are not delivered
    std::list<std::string>
        excluded_subdirs;  ///< relative to the path: neither watched nor delivered
    bool remove = false;   ///< take the watch off instead of putting it on
};
