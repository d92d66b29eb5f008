#pragma once

#include <framework/Engine.h>
#include <json/value.h>

#include <cstdint>
#include <string>
#include <vector>

#include "policy/PolicyService.h"

namespace Agent {

/// Adds the members of `from` to `into`. Objects on both sides are merged member by member; of
/// anything else what `into` has already stays.
void MergeStatus(const Json::Value& from, Json::Value& into);

/// A module named in the configuration that could not be used, and why.
struct FailedModule {
    std::string name;
    std::string error;
};

/// Puts the answer to "how is the agent" together from the framework, the policies and what the
/// modules contribute. Any thread; never waits for a policy that is being applied.
class StatusDocument {
  public:
    /// Borrows both.
    StatusDocument(Framework::Engine& engine, const PolicyService& policies);

    /// Before the control API is started.
    void SetFailedModules(const std::vector<FailedModule>& failed) { failed_modules_ = failed; }

    Json::Value Build();

  private:
    Json::Value Modules() const;
    Json::Value Tasks() const;

    Framework::Engine& engine_;
    const PolicyService& policies_;
    const std::int64_t started_;
    std::vector<FailedModule> failed_modules_;
};

}  // namespace Agent
