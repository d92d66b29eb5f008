#pragma once

#include <json/value.h>

#include <cstdint>
#include <set>
#include <string>

#include "products/Product.h"

namespace Bench {

/// The alarms after a given report.
struct AlarmPaths {
    std::set<std::string> paths;            ///< with an alarm in the store
    std::set<std::string> with_difference;  ///< with a difference in the alarm
};

/// The built agent in an installation of its own with a real policy. The only user of the control
/// API.
class Sentrel : public Product {
  public:
    /// `is_fast`: as installed; false: restores only by plain rsync processes.
    Sentrel(const Machine& machine, bool is_fast) : machine_(machine), is_fast_(is_fast) {}

    std::string Name() const override;
    std::string CopyRoot(const Site& site) const override;
    bool Start(const Site& site, const ProductSettings& settings) override;
    void Settle() override;

    /// StartAgent starts it without a policy. Protect applies a policy and waits until ready.
    bool StartAgent(const Site& site, bool tmp_is_full = false);
    bool Protect(const Site& site, const ProductSettings& settings);

    /// Switches the policy off.
    void Unprotect();

    /// From the policy request to "backup complete"; valid after Protect with makes_copy.
    double BackupMs() const { return backup_ms_; }

    /// How long the agent took to list and sign the state that it approved last; negative when its
    /// log does not say.
    double ManifestMs() const;

    /// The status document; null when the agent does not answer.
    Json::Value Status() const;

    /// The state of the protected path is approved and signed.
    bool HasManifest() const;

    /// The command that compares all contents with what was approved; exit code 0: nothing differs.
    Command VerifyCommand() const;

    /// The number of the newest report. `Since` returns the alarms after it.
    std::int64_t LastReport() const;
    AlarmPaths Since(std::int64_t report) const;

    /// Waits until each of `paths` has an alarm after `report`; false after the deadline. Adds all
    /// alarms to `alarms`. Throws Interrupted.
    bool AwaitReports(std::int64_t report, const std::vector<std::string>& paths,
                      milliseconds deadline, AlarmPaths& alarms) const;

    /// False when this build has no switches for the fast restore paths.
    static bool CanDisableFastPaths(const Machine& machine);

  private:
    std::string Socket() const { return install_ + "/run/agent.sock"; }
    bool Install(const Site& site) const;
    bool Configure() const;
    void Collect(std::int64_t& report, AlarmPaths& alarms) const;
    std::string Policy(const Site& site, const ProductSettings& settings) const;

    const Machine machine_;
    const bool is_fast_;
    std::string install_;
    double backup_ms_ = 0;
};

}  // namespace Bench
