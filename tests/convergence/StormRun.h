#pragma once

#include <AlarmFeed.h>
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

/// One storm over a site of its own, and the judgement of what the agent made of it. One thread;
/// the mutators are processes of their own.
class StormRun {
  public:
    enum class Mode {
        kRestore,
        kMonitor,   ///< monitor-only: everything is told, nothing is touched
        kOverflow,  ///< the agent is stopped until the kernel has dropped events
        kSlow,      ///< every rsync takes its time
    };
    static Mode ModeOf(const std::string& name);

    /// To be called before `agent` is started.
    static void Prepare(const AgentProcess& agent);

    /// `agent` runs; `steps` operations in all.
    StormRun(AgentProcess& agent, std::uint64_t seed, Mode mode, int steps);

    /// True when the promise was kept; Report tells the rest either way.
    bool Run();

    static constexpr std::size_t kEverything = static_cast<std::size_t>(-1);
    /// A line, and one more for each of the first faults.
    std::string Report(std::size_t faults = 12) const;

  private:
    bool Protect();
    void MutateAll();
    void Burst(std::uint64_t seed, int mutators, int steps);
    void Sample();
    bool WaitForQuiet();
    void AwaitAgreement();
    void AwaitAlarms();
    bool FetchAlarms();
    std::uint64_t Counter(const std::string& name) const;
    void Fault(const std::string& text) { faults_.push_back(text); }

    AgentProcess& agent_;
    const std::uint64_t seed_;
    const Mode mode_;
    const int steps_;
    TestSite site_;
    std::optional<Oracle> oracle_;  ///< from the time at which there is a backup copy
    TempDir scratch_;
    Demo::AlarmFeed feed_;
    std::set<std::string> alarms_;
    std::size_t alarms_seen_ = 0;
    int cookies_ = 0;
    Differences last_sample_;
    Differences differed_;  ///< in two samples in succession, or when the storm had ended
    std::vector<std::string> faults_;
    std::chrono::milliseconds settled_after_{0};
};

}  // namespace test
