#pragma once

#include <json/value.h>

#include <cstdint>
#include <set>
#include <string>

#include "guards/Guard.h"

namespace Bench {

/// What the agent has told of changes since a moment.
struct Reported {
    std::set<std::string> paths;            ///< of which an alarm is stored
    std::set<std::string> with_difference;  ///< those whose alarm shows what changed
};

/// Ours: the built agent in an installation of its own, with a real policy. Knows the control API;
/// nothing else here does.
class AgentGuard : public Guard {
  public:
    /// `quick`: as it is installed; else restoring by plain rsync processes alone.
    AgentGuard(const Machine& machine, bool quick) : machine_(machine), quick_(quick) {}

    std::string Name() const override;
    std::string GoodRoot(const Site& site) const override;
    bool Start(const Site& site, const GuardSettings& settings) override;
    void Settle() override;

    /// The agent alone, without a policy; then a policy for the site, which waits for readiness.
    bool StartAgent(const Site& site, bool tmp_is_full = false);
    bool Protect(const Site& site, const GuardSettings& settings);

    /// The policy off again.
    void Unprotect();

    /// From the policy's request to "backup complete"; known after Protect with makes_copy.
    double BackupMs() const { return backup_ms_; }

    /// The status document; null when the agent does not answer.
    Json::Value Status() const;

    /// Number of the newest report; `Since` gives what came after it.
    std::int64_t LastReport() const;
    Reported Since(std::int64_t report) const;

    /// Waits until each of `paths` has an alarm that came after `report`; false at the deadline.
    /// `told` gets all that came. Throws Stopped.
    bool AwaitReports(std::int64_t report, const std::vector<std::string>& paths,
                      milliseconds deadline, Reported& told) const;

    /// False where this build cannot be told to restore by plain rsync processes.
    static bool HasPlainForm(const Machine& machine);

  private:
    std::string Socket() const { return install_ + "/run/agent.sock"; }
    bool Install(const Site& site) const;
    bool Configure() const;
    void Collect(std::int64_t& report, Reported& told) const;
    std::string Policy(const Site& site, const GuardSettings& settings) const;

    const Machine machine_;
    const bool quick_;
    std::string install_;
    double backup_ms_ = 0;
};

}  // namespace Bench
