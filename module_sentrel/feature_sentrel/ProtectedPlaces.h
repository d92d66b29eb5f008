#pragma once

#include <PolicyFindings.h>
#include <json/value.h>

#include <filesystem>
#include <string>
#include <vector>

namespace Engine {

/// Where an entry of a policy's "dirlist" lies, links and ".." resolved as far as paths exist.
struct ProtectedPlace {
    ProtectedPlace(const Json::Value& entry, std::string entry_pointer);

    /// `name`, a path below `path`, lies in an excluded subdirectory.
    bool IsExcluded(const std::string& name) const;

    std::string pointer;
    std::filesystem::path path;    ///< without a trailing "/"
    std::filesystem::path backup;  ///< the same; empty when there is none
    std::vector<std::string> excluded;
};

/// Backup folders within protected paths, protected paths within their backup folder, and paths
/// that several entries name.
void CheckHowPlacesLie(const std::vector<ProtectedPlace>& places, PolicyFindings& findings);

}  // namespace Engine
