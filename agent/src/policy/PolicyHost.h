#pragma once

#include <framework/Engine.h>
#include <json/value.h>

#include <cstdint>
#include <string>
#include <vector>

namespace Agent {

/// What the policy service asks of the framework and its modules. Any thread but the framework's.
class PolicyHost {
  public:
    virtual ~PolicyHost() = default;

    /// The features that a loaded module has a check for, sorted.
    virtual std::vector<std::string> Features() const = 0;

    /// What a check looks at: all, or of a policy that was good once only whether the places that
    /// it relies on are safe still.
    enum class Scope { kAll, kPlaces };

    /// The owning module's opinion: {"errors":[...],"warnings":[...]}. False when it has none to
    /// give.
    virtual bool Check(const std::string& feature, const std::string& text, Scope scope,
                       Json::Value& answer) = 0;

    /// Has the framework apply the policy, and waits for it.
    virtual Framework::PolicyOutcome Apply(const std::string& feature, const std::string& text) = 0;

    /// Sequence number of the newest report; 0 when there is no report store.
    virtual std::int64_t LastReport() = 0;

    /// The text of an exception report about `feature` that is newer than `after`; empty when there
    /// is none.
    virtual std::string ExceptionSince(std::int64_t after, const std::string& feature) = 0;
};

/// The real one. Borrows the engine.
class EnginePolicyHost : public PolicyHost {
  public:
    explicit EnginePolicyHost(Framework::Engine& engine) : engine_(engine) {}

    std::vector<std::string> Features() const override;
    bool Check(const std::string& feature, const std::string& text, Scope scope,
               Json::Value& answer) override;
    Framework::PolicyOutcome Apply(const std::string& feature, const std::string& text) override;
    std::int64_t LastReport() override;
    std::string ExceptionSince(std::int64_t after, const std::string& feature) override;

  private:
    Framework::Engine& engine_;
};

}  // namespace Agent
