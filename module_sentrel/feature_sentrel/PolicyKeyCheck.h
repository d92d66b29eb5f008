#pragma once

#include <PolicyFindings.h>
#include <json/value.h>

#include <string>
#include <vector>

namespace Engine {

/// A key that the module reads, and what it must hold.
struct PolicyKey {
    enum class Type { kBool, kInt, kString, kObject, kStringArray, kIntArray, kObjectArray };
    std::string name;
    Type type;
};

/// Checks an object's members against the known keys: wrong types and probable typing errors are
/// errors, other unknown keys are warnings. `elsewhere` names keys that belong on another level.
void CheckKeys(const Json::Value& object, const std::string& pointer,
               const std::vector<PolicyKey>& known, const std::vector<PolicyKey>& elsewhere,
               PolicyFindings& findings);

/// Insertions, deletions and replacements that turn one text into the other, letter case aside.
std::size_t EditDistance(const std::string& a, const std::string& b);

}  // namespace Engine
