#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "AgentClient.h"
#include "AlarmFeed.h"
#include "Attacks.h"
#include "TreeState.h"

namespace Demo {

/// What became of one attack.
struct AttackResult {
    std::string name;
    std::string path;
    bool undone = false;
    double undone_ms = 0;        ///< from the attack's beginning to the object being as before
    std::optional<Alarm> alarm;  ///< the first that names the object or something below it
    std::string failure;         ///< why it counts as failed; empty when all is well
};

/// Carries attacks out one after the other and watches each being undone and reported. Owns
/// nothing; one thread. Blocks at most twice the deadline for each attack.
class AttackRun {
  public:
    AttackRun(AlarmFeed& feed, const AgentClient& agent, std::chrono::milliseconds deadline)
        : feed_(feed), agent_(agent), deadline_(deadline) {}

    /// Begins when the agent is at rest, so that the time is that of this attack alone.
    AttackResult Run(const Attack& attack);

    /// Waits until `path` is as `before` again; the last difference, empty when there is none.
    std::string WaitUntilAs(const TreeState& before, const std::string& path) const;

  private:
    void WaitForRest() const;

    AlarmFeed& feed_;
    const AgentClient& agent_;
    std::chrono::milliseconds deadline_;
};

}  // namespace Demo
