#pragma once

#include <string>
#include <vector>

namespace Demo {

/// The part of a site that the attack may change.
struct SurveyRequest {
    std::string site;  ///< without a trailing "/"
    std::vector<std::string> excluded_subdirs;
    std::vector<std::string> excluded_suffixes;
    std::size_t files = 0;        ///< required number of files
    std::size_t directories = 0;  ///< required number of subtrees
};

/// Objects to attack: each once, none below another. Absolute paths.
struct AttackTargets {
    std::vector<std::string> files;        ///< spread over the site's directories
    std::vector<std::string> directories;  ///< small subtrees that hold at least one file
    std::vector<std::string>
        stable_directories;  ///< directories that are not attacked, for added objects
};

/// True when `path` means itself in an unquoted command line.
bool IsPlainPath(const std::string& path);

/// Chooses targets, always the same for the same site. False when the site has too few; `error`
/// names what is missing. Reads the names of the whole tree and changes nothing.
bool ChooseTargets(const SurveyRequest& request, AttackTargets& targets, std::string& error);

}  // namespace Demo
