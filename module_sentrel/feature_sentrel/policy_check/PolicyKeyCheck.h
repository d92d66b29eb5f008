#pragma once

#include <json/value.h>

#include <string>
#include <vector>

#include "feature_sentrel/policy_check/PolicyFindings.h"

namespace Engine {

/// A key that the module reads, and the type of its value.
struct PolicyKey {
    enum class Type { kBool, kInt, kString, kObject, kStringArray, kIntArray, kObjectArray };
    std::string name;
    Type type;
};

/// Warns of an object's members that the module ignores: those of a wrong type and unknown ones.
/// `elsewhere` are the keys that belong on another level.
void CheckKeys(const Json::Value& object, const std::string& pointer,
               const std::vector<PolicyKey>& known, const std::vector<PolicyKey>& elsewhere,
               PolicyFindings& findings);

/// Insertions, deletions and replacements that turn one text into the other, letter case aside.
std::size_t EditDistance(const std::string& a, const std::string& b);

}  // namespace Engine
