#pragma once

#include <json/value.h>

#include <filesystem>
#include <string>
#include <vector>

#include "feature_sentrel/policy_check/PolicyFindings.h"

namespace Engine {

/// The paths of an entry of a policy's "dirlist". Links and ".." are resolved as far as paths
/// exist.
struct ProtectedPlace {
    ProtectedPlace(const Json::Value& entry, std::string entry_pointer);

    // `name` is a path below `path`.

    /// Its events are ignored: it begins like an excluded subdirectory.
    bool IsExcluded(const std::string& name) const;
    /// It is an excluded subdirectory or lies in one.
    bool IsMeantByExclusion(const std::string& name) const;
    /// rsync leaves it out of a backup: it has the name of an excluded subdirectory, at any depth.
    bool IsKeptFromBackup(const std::string& name) const;

    std::string pointer;
    std::filesystem::path path;         ///< without a trailing "/"
    std::filesystem::path backup;       ///< the same; empty when there is none
    std::vector<std::string> excluded;  ///< full paths
};

/// Reports backup folders within protected paths, protected paths within their backup folder, and
/// paths that several entries name.
void CheckHowPlacesLie(const std::vector<ProtectedPlace>& places, PolicyFindings& findings);

}  // namespace Engine
