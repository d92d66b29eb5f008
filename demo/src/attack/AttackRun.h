#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "agent/AgentClient.h"
#include "agent/AlarmFeed.h"
#include "attack/Attacks.h"
#include "site/TreeState.h"

namespace Demo {

/// The result of one attack.
struct AttackResult {
    std::string name;
    std::string path;
    bool undone = false;
    double undone_ms = 0;        ///< from the start of the attack until the object is restored
    std::optional<Alarm> alarm;  ///< the first that names the object or something below it
    std::string failure;         ///< the reason of a failure; empty for success
};

/// Runs attacks one after the other and waits until each is undone and reported. Owns nothing; not
/// thread-safe. Blocks at most twice the deadline per attack.
class AttackRun {
  public:
    AttackRun(AlarmFeed& feed, const AgentClient& agent, std::chrono::milliseconds deadline)
        : feed_(feed), agent_(agent), deadline_(deadline) {}

    /// Waits until the agent is idle, so that the time is that of this attack only.
    AttackResult Run(const Attack& attack);

    /// Blocks until `path` equals `before` again; returns the last difference, empty when there is
    /// none.
    std::string WaitUntilAs(const TreeState& before, const std::string& path) const;

  private:
    void WaitUntilIdle() const;

    AlarmFeed& feed_;
    const AgentClient& agent_;
    std::chrono::milliseconds deadline_;
};

}  // namespace Demo
