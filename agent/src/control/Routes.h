#pragma once

#include <framework/Engine.h>

#include <functional>
#include <string>
#include <vector>

#include "control/BaselineRequests.h"
#include "control/ConcurrencyLimit.h"
#include "control/Reply.h"
#include "control/ReportReader.h"
#include "policy/PolicyService.h"

namespace Agent {

/// A request of the control API after its conversion from HTTP.
struct ControlRequest {
    std::string method;
    std::vector<std::string> path;  ///< decoded segments
    QueryParameters parameters;
    std::string body;
    Peer peer;
};

/// Finds and runs the operation of a request. Blocks as long as the operation does. Every request
/// gets a reply; errors are a sentence. Thread-safe.
class Routes {
  public:
    using Tasklet =
        std::function<Framework::TaskletOutcome(const std::string& id, const std::string& request)>;
    using Status = std::function<Json::Value()>;

    /// Borrows the first three. At most `max_slow` requests for the framework thread run
    /// or wait at a time; others get status 503.
    Routes(PolicyService& policies, ReportReader& reports, BaselineRequests& baselines,
           Tasklet tasklet, Status status, int max_slow);

    Reply Handle(const ControlRequest& request);

  private:
    Reply HandlePolicies(const ControlRequest& request);
    Reply HandlePolicy(const ControlRequest& request, const std::string& feature);
    Reply ApplyPolicy(const std::string& feature, const std::string& text);
    Reply HandleBaseline(const ControlRequest& request);
    Reply HandleOperation(const ControlRequest& request);
    Reply RunTasklet(const std::string& id, const std::string& text);

    PolicyService& policies_;
    ReportReader& reports_;
    BaselineRequests& baselines_;
    const Tasklet tasklet_;
    const Status status_;
    ConcurrencyLimit slow_;
};

}  // namespace Agent
