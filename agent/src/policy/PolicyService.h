#pragma once

#include <json/value.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>

#include "policy/PolicyHost.h"
#include "policy/PolicyStore.h"

namespace Agent {

enum class PolicyState { kOn, kOff, kRejected };

const char* ToText(PolicyState state);

/// The outcome of a policy or of its check. Both lists are arrays of {"pointer","message"}.
struct PolicyVerdict {
    PolicyState state = PolicyState::kRejected;
    Json::Value errors{Json::arrayValue};
    Json::Value warnings{Json::arrayValue};
};

/// Takes policies in: checks, applies and keeps them. A policy that is refused changes nothing,
/// the last good one stays in force.
///
/// Thread-safe, but not for the framework thread. Apply and ReapplyStored run one at a time and
/// block for as long as the framework takes; the others never wait for them.
class PolicyService {
  public:
    /// Borrows both.
    PolicyService(PolicyHost& host, const PolicyStore& store);

    PolicyVerdict Check(const std::string& feature, const std::string& text);
    PolicyVerdict Apply(const std::string& feature, const std::string& text);

    /// Applies the stored policies again, as at the start of the agent. A refused policy is logged
    /// and stays stored; the others continue.
    void ReapplyStored();

    /// Checks the stored policies and applies none.
    std::map<std::string, PolicyVerdict> CheckStored();

    /// Makes ReapplyStored end after its current policy, since the agent stops.
    void StopReapplying() { is_stopping_ = true; }

    /// [{"feature","state","applied_at"(,"last_rejection")}], sorted by feature. `state` is
    /// "failed" when a stored policy could not be applied again, at the start or after a rejected
    /// policy. The rejection is that of a policy after the last accepted one.
    Json::Value List() const;

    /// The same for one feature with its "text"; null when none was accepted yet.
    Json::Value Show(const std::string& feature) const;

  private:
    struct Entry {
        std::string state;
        std::int64_t applied_at = 0;
        std::int64_t rejected_at = 0;
        std::string rejection;
    };

    /// The framework's result.
    struct Attempt {
        PolicyState state = PolicyState::kRejected;
        std::string reason;
    };

    PolicyVerdict Check(const std::string& feature, const std::string& text,
                        PolicyHost::Scope scope);
    bool IsKnown(const std::string& feature) const;
    Attempt Try(const std::string& feature, const std::string& text,
                Framework::PolicyOrigin origin);
    std::string RestoreLastGood(const std::string& feature);
    PolicyVerdict ApplyChecked(const std::string& feature, const std::string& given,
                               PolicyVerdict verdict);
    void RecordAccepted(const std::string& feature, PolicyState state);
    PolicyVerdict Reapply(const std::string& feature);
    void RecordFailed(const std::string& feature);
    void RecordRejected(const std::string& feature, const PolicyVerdict& verdict);
    static Json::Value Describe(const std::string& feature, const Entry& entry);

    PolicyHost& host_;
    const PolicyStore& store_;
    std::atomic<bool> is_stopping_{false};
    std::mutex apply_mutex_;          ///< one policy at a time; taken before state_mutex_
    mutable std::mutex state_mutex_;  ///< guards entries_; held briefly
    std::map<std::string, Entry> entries_;
};

}  // namespace Agent
