#pragma once

#include <console/Backend.h>

#include <cstdint>
#include <string>
#include <vector>

#include "store/FleetStore.h"
#include "store/RolloutStore.h"
#include "store/UserStore.h"

namespace Collector {

/// What the console of a fleet asks for to act: it prepares documents, which the operator signs
/// elsewhere, takes the signed ones for publishing, and tells how far they are. The collector has
/// no key to sign with. Not thread-safe.
class CentreRequests {
  public:
    /// Borrows the stores.
    CentreRequests(FleetStore& hosts, UserStore& users, RolloutStore& rollouts)
        : hosts_(hosts), users_(users), rollouts_(rollouts) {}

    /// {"act", "hosts", "request", "valid_s"} or {"feature", "hosts", "policy"} gives {"document",
    /// "signed_text", "hosts"}: what to sign as a file, and its bytes for the browser.
    Console::Reply Prepare(const Console::Request& request);

    /// {"document", "percent"} gives {"rollout"}: it will be published.
    Console::Reply Publish(const Console::Request& request);

    Console::Reply List();
    Console::Reply Show(std::int64_t id);

    /// `action`: "stop", or "continue" with the next wave of a stopped one.
    Console::Reply Change(const Console::Request& request, std::int64_t id,
                          const std::string& action);

  private:
    FleetStore& hosts_;
    UserStore& users_;
    RolloutStore& rollouts_;
};

}  // namespace Collector
