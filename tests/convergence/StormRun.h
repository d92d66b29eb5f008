#pragma once

#include <agent/AlarmFeed.h>
#include <sys/types.h>

#include <chrono>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "Oracle.h"
#include "TestSite.h"
#include "support/AgentProcess.h"

namespace test {

/// One storm of random changes on a site of its own, and the check of the agent's response. Not
/// thread-safe; the mutators are processes of their own.
class StormRun {
  public:
    enum class Mode {
        kRestore,
        kMonitor,   ///< monitor-only: every change has an alarm, no change is undone
        kOverflow,  ///< the agent is stopped until the kernel has dropped events
        kSlow,      ///< every rsync run is delayed
    };
    static Mode ModeOf(const std::string& name);

    /// Enables the debug log. Call it before `agent` starts.
    static void Prepare(const AgentProcess& agent);

    /// `agent` is running; `steps` is the total number of operations.
    StormRun(AgentProcess& agent, std::uint64_t seed, Mode mode, int steps);

    /// True when no fault was found; Report lists the faults.
    bool Run();

    static constexpr std::size_t kEverything = static_cast<std::size_t>(-1);
    /// A summary line, and one line for each of the first `faults` faults.
    std::string Report(std::size_t faults = 12) const;

  private:
    bool Protect();
    void MutateAll();
    void RunMutators(std::uint64_t seed, int mutators, int steps);
    void Sample();
    bool WaitForQuiet();
    void AwaitConvergence();
    void AwaitAlarms();
    bool FetchAlarms();
    std::uint64_t Counter(const std::string& name) const;
    void AddFault(const std::string& text) { faults_.push_back(text); }

    AgentProcess& agent_;
    const std::uint64_t seed_;
    const Mode mode_;
    const int steps_;
    TestSite site_;
    std::optional<Oracle> oracle_;  ///< set when the backup copy is complete
    TempDir scratch_;
    Demo::AlarmFeed feed_;
    std::set<std::string> alarms_;
    int cookies_ = 0;
    Differences last_sample_;
    Differences differed_;  ///< in two consecutive samples, or at the end of the storm
    std::vector<std::string> faults_;
    std::chrono::milliseconds settle_time_{0};
};

}  // namespace test
