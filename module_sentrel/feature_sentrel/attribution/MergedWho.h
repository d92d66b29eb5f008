#pragma once

#include <string>

namespace Engine {

/// Adds the process that `other` names to the "others" of `who`, unless it is known there or there
/// are many. Both are JSON objects of the sentry, or empty.
void MergeWho(std::string& who, const std::string& other);

}  // namespace Engine
