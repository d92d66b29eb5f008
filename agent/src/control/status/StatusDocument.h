#pragma once

#include <framework/Engine.h>
#include <json/value.h>

#include <cstdint>
#include <string>
#include <vector>

#include "policy/PolicyService.h"

namespace Agent {

/// Adds the members of `from` to `into`. Objects in both are merged; any other member of `into`
/// stays.
void MergeStatus(const Json::Value& from, Json::Value& into);

/// A configured module that could not be used, and why.
struct FailedModule {
    std::string name;
    std::string error;
};

/// Builds the status document from the framework, the policies and the modules' answers, whose
/// members "health" it joins (HealthSummary). Never waits for a policy that is being applied.
/// Thread-safe.
class StatusDocument {
  public:
    /// Borrows both.
    StatusDocument(Framework::Engine& engine, const PolicyService& policies);

    /// Call before the control API starts.
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
