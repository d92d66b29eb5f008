#pragma once

#include <json/value.h>

#include <string>

#include "feature_sentrel/policy_check/PolicyFindings.h"

namespace Engine {

/// Checks the enabled entries of "dirlist": their paths, their exclusions, and paths within each
/// other. Reads the file system, at most 20,000 names below all protected paths together.
void CheckDirList(const Json::Value& content, const std::string& pointer, PolicyFindings& findings);

/// Checks only whether the backup paths of the enabled entries are safe from other users.
void CheckCopyPlaces(const Json::Value& content, const std::string& pointer,
                     PolicyFindings& findings);

}  // namespace Engine
