#pragma once

#include <vector>

#include "feature_sentrel/policy_check/PolicyKeyCheck.h"

namespace Engine {

// The keys of the two policy documents. docs/policy-*.schema.json name the same; a test compares.

/// Of either document's top level.
const std::vector<PolicyKey>& DocumentKeys();
/// Of "content" in a protection policy, without the rsync sources.
const std::vector<PolicyKey>& ProtectionKeys();
/// Of an object in "dirlist".
const std::vector<PolicyKey>& EntryKeys();
/// Of "content" in a backup-server policy, without the rsync sources.
const std::vector<PolicyKey>& BackUpServerKeys();

}  // namespace Engine
