#pragma once

#include <framework/Engine.h>
#include <json/value.h>

#include <string>
#include <vector>

namespace Agent {

/// What the policy service needs from the framework and its modules. Thread-safe, but not for the
/// framework thread.
class PolicyHost {
  public:
    virtual ~PolicyHost() = default;

    /// The features with a check in a loaded module, sorted.
    virtual std::vector<std::string> Features() const = 0;

    /// The scope of a check: everything; also whether its consequences can be approved now, as when
    /// it is applied; or only whether the places of a policy that was good once are still safe.
    enum class Scope { kAll, kToApply, kPlaces };

    /// The verdict of the owning module: {"errors":[...],"warnings":[...]}. False when it gives
    /// none.
    virtual bool Check(const std::string& feature, const std::string& text, Scope scope,
                       Json::Value& answer) = 0;

    /// The policy completed from the last good one of its feature; often just `text`.
    virtual std::string Completed(const std::string& feature, const std::string& text,
                                  const std::string& last) = 0;

    /// Lets the framework apply the policy; blocks until that is done.
    virtual Framework::PolicyOutcome Apply(const std::string& feature, const std::string& text,
                                           Framework::PolicyOrigin origin) = 0;
};

/// The PolicyHost of the running agent. Borrows the engine.
class EnginePolicyHost : public PolicyHost {
  public:
    explicit EnginePolicyHost(Framework::Engine& engine) : engine_(engine) {}

    std::vector<std::string> Features() const override;
    bool Check(const std::string& feature, const std::string& text, Scope scope,
               Json::Value& answer) override;
    std::string Completed(const std::string& feature, const std::string& text,
                          const std::string& last) override;
    Framework::PolicyOutcome Apply(const std::string& feature, const std::string& text,
                                   Framework::PolicyOrigin origin) override;

  private:
    Framework::Engine& engine_;
};

}  // namespace Agent
