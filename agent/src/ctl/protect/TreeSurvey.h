#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace Ctl {

/// What a look through a tree found, without what is excluded from it.
struct SurveyResult {
    std::size_t files = 0;  ///< all objects that are no directories
    std::size_t directories = 0;
    std::uint64_t bytes = 0;
    std::vector<std::string> findings = {};  ///< sentences for an operator; safe to print
    std::string error = {};                  ///< why the path cannot be looked at; else empty
};

/// What is to be looked at.
struct SurveyRequest {
    std::string path;                   ///< absolute; links resolved
    std::vector<std::string> excluded;  ///< relative to the path, matched by their text
    std::vector<std::string> suffixes;  ///< of file names that are ignored
    std::string copies;                 ///< where the copies go; may be empty
};

/// Looks through the tree, or at the file: counts, and finds names and sizes that matter for the
/// protection. Never follows a link, reads no content, leaves access times as they are. Blocks as
/// long as reading all directories takes.
SurveyResult SurveyTree(const SurveyRequest& request);

/// What is special about the place itself: its file system, and who can replace it.
std::vector<std::string> SurveyPlace(const std::string& path);

}  // namespace Ctl
