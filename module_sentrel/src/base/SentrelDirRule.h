#pragma once

#include <list>
#include <string>

namespace Engine {

/// One protected path with its exclusions and backup location, as the policy gave it.
struct SentrelDirRule {
    bool auto_restore = false;  ///< undo changes; otherwise they are only reported
    bool is_file = false;       ///< the path (links resolved) is a regular file, else a directory
    std::string filepath;       ///< as configured; a directory's ends in "/"
    std::string backup_path;    ///< the backup copy of a file is this followed by its full path
    std::list<std::string> ignored_postfix;  ///< file name endings, trimmed
    std::list<std::string> ignored_subdir;   ///< relative to the path, trimmed
    std::string real_path;                   ///< what is protected; a directory's ends in "/"
    std::string link = {};  ///< the link that names it, without a trailing "/"; empty: none
};

}  // namespace Engine
