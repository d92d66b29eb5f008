#pragma once

#include <json/value.h>

#include <string>

namespace Agent {

/// Joins what the agent and its modules say about the health of the protection into the member
/// "health" of the status document: {"state","reasons":[{"code","text","path"}]}. "state" is the
/// worst of all: "healthy", "degraded" or "off". Not thread-safe.
class HealthSummary {
  public:
    /// What a module answered: an object as above. Anything else is ignored.
    void Add(const Json::Value& health);

    /// The reasons that the document itself holds: modules that failed, tasks that do not work,
    /// policies that are not in force, and notifications that do not arrive. They precede those of
    /// the modules, since they cause them.
    void AddFromDocument(const Json::Value& status);

    /// "off" when no module has answered: then nothing is protected.
    Json::Value ToJson() const;

  private:
    void AddOwn(const char* code, const std::string& text);

    int state_ = 0;  ///< index of the worst state
    bool is_answered_ = false;
    Json::Value own_{Json::arrayValue};
    Json::Value others_{Json::arrayValue};
};

}  // namespace Agent
