#pragma once

#include <framework/QueryRegistry.h>

#include <atomic>
#include <string>
#include <utility>
#include <vector>

#include "control/ConcurrencyLimit.h"
#include "control/Reply.h"

namespace Agent {

using QueryParameters = std::vector<std::pair<std::string, std::string>>;

/// Answers requests for reports from the report store, waiting for new ones where the reader asks
/// for it. Any thread; Read blocks for as long as the reader wants to wait (at most kMaxWaitMs), or
/// until Stop.
class ReportReader {
  public:
    /// Borrows `queries`. At most `max_waiting` readers wait at a time; others get a 503.
    ReportReader(Framework::QueryRegistry& queries, int max_waiting);

    Reply Read(const QueryParameters& parameters);

    /// Waiting readers get what there is; later ones do not wait.
    void Stop() { stopped_ = true; }

  private:
    Reply Wait(Json::Value request, int wait_ms);
    Reply Ask(const Json::Value& request);

    Framework::QueryRegistry& queries_;
    ConcurrencyLimit waiting_;
    std::atomic<bool> stopped_{false};
};

}  // namespace Agent
