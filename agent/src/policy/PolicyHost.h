#pragma once

#include <framework/Engine.h>
#include <json/value.h>

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

    /// The policy with what it takes over from the last good one of its feature; often just `text`.
    virtual std::string Completed(const std::string& feature, const std::string& text,
                                  const std::string& last) = 0;

    /// Has the framework apply the policy, and waits for it.
    virtual Framework::PolicyOutcome Apply(const std::string& feature, const std::string& text) = 0;
};

/// The real one. Borrows the engine.
class EnginePolicyHost : public PolicyHost {
  public:
    explicit EnginePolicyHost(Framework::Engine& engine) : engine_(engine) {}

    std::vector<std::string> Features() const override;
    bool Check(const std::string& feature, const std::string& text, Scope scope,
               Json::Value& answer) override;
    std::string Completed(const std::string& feature, const std::string& text,
                          const std::string& last) override;
    Framework::PolicyOutcome Apply(const std::string& feature, const std::string& text) override;

  private:
    Framework::Engine& engine_;
};

}  // namespace Agent
