#pragma once

#include <json/value.h>

#include <string>

#include "ctl/client/ControlClient.h"
#include "ctl/protect/ProtectionPolicy.h"

namespace Ctl {

constexpr char kProtectionFeature[] = "sentrel_feature";

/// The protection policy and the status of an agent at one moment, for a command that changes the
/// policy. Each operation prints what goes wrong and returns an exit code. Not thread-safe.
class PolicyChange {
  public:
    explicit PolicyChange(const ControlClient& client) : client_(client) {}

    /// Reads both. Without a policy a new one is begun.
    int Read();

    ProtectionPolicy& Policy() { return policy_; }
    const Json::Value& Status() const { return status_; }

    /// Asks the agent what it would say to the policy, and prints its errors and warnings.
    int Check() const;

    /// Applies the policy, unless somebody has applied another one since Read. `key`: the file of
    /// the private key where it is kept elsewhere, or empty. kExitOff: accepted, and the protection
    /// is off.
    int Apply(const std::string& key) const;

  private:
    const ControlClient& client_;
    ProtectionPolicy policy_;
    std::string text_;  ///< as it was read; empty for none
    Json::Value status_;
};

/// kExitOk when "yes" was typed on the terminal. Otherwise, also without a terminal, it prints that
/// nothing was changed and returns the exit code.
int AskToGoOn();

}  // namespace Ctl
