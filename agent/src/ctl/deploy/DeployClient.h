#pragma once

#include <json/value.h>

#include <string>

#include "ctl/baselines/DifferenceList.h"
#include "ctl/client/ControlClient.h"
#include "ctl/deploy/Overlay.h"

namespace Ctl {

/// A deploy as the agent began it.
struct OpenDeploy {
    std::string id;
    OverlayPlan plan;
    std::vector<std::string> exclusions;  ///< patterns
    std::string link;                     ///< a release link that leads to the root; empty: none
};

/// Asks the agent for operations on deploys and pauses. Not thread-safe.
class DeployClient {
  public:
    explicit DeployClient(const ControlClient& client) : client_(client) {}

    /// `subject` is "deploy" or "pause". A status other than 200 means that the agent refused; its
    /// sentence is in `problem`.
    Answer Ask(const std::string& subject, const std::string& action,
               const Json::Value& request) const;

    /// Asks about one deploy.
    Answer Ask(const std::string& action, const std::string& id) const;

    /// False with the answer to the query when the agent refused.
    bool Begin(const Json::Value& request, OpenDeploy& deploy, Answer& answer) const;

    /// The same of one that is open.
    bool Show(const std::string& id, OpenDeploy& deploy, Answer& answer) const;

    /// Unmounts the trees of deploys that are not open any more, which an agent without the right
    /// to unmount cannot remove.
    void DetachLeftOvers(const OpenDeploy& own) const;

    /// Blocks until the agent has carried the deploy out, or cannot be asked any more.
    Answer AwaitEnd(const std::string& id) const;

  private:
    const ControlClient& client_;
};

/// Lists what was changed in the deploy. A sentence when that cannot be told, or cannot be
/// deployed.
std::string ListStaged(const OpenDeploy& deploy, DifferenceList& list);

}  // namespace Ctl
