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

/// Answers requests for reports from the report store. Read blocks as long as the reader asks for
/// (at most kMaxWaitMs), or until Stop. Thread-safe.
class ReportReader {
  public:
    /// Borrows `queries`. At most `max_waiting` readers wait at a time; others get status 503.
    ReportReader(Framework::QueryRegistry& queries, int max_waiting);

    Reply Read(const QueryParameters& parameters);

    /// Waiting readers get the existing reports; later ones do not wait.
    void Stop() { stopped_ = true; }

  private:
    Reply Wait(Json::Value request, int wait_ms);
    Reply Ask(const Json::Value& request);

    Framework::QueryRegistry& queries_;
    ConcurrencyLimit waiting_;
    std::atomic<bool> stopped_{false};
};

}  // namespace Agent
