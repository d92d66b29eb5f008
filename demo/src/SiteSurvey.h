#pragma once

#include <string>
#include <vector>

namespace Demo {

/// What of a site the attack may touch, apart from the site itself.
struct SurveyRequest {
    std::string site;  ///< without a trailing "/"
    std::vector<std::string> excluded_subdirs;
    std::vector<std::string> excluded_suffixes;
    std::size_t files = 0;        ///< how many files are wanted
    std::size_t directories = 0;  ///< how many subtrees are wanted
};

/// Objects to attack, none of them twice and none below another. Absolute paths.
struct Victims {
    std::vector<std::string> files;        ///< spread over the site's directories
    std::vector<std::string> directories;  ///< small subtrees that hold at least one file
    std::vector<std::string> homes;        ///< directories that stay, for what is added
};

/// True when an unquoted command line carries `path` as it stands.
bool IsCarryable(const std::string& path);

/// Picks victims; the same site gives the same ones. False when the site has too few, `error` says
/// what is missing. Reads the whole tree's names, changes nothing.
bool ChooseVictims(const SurveyRequest& request, Victims& victims, std::string& error);

}  // namespace Demo
