#pragma once

#include <json/value.h>

#include <string>
#include <vector>

#include "ctl/client/ControlClient.h"

namespace Ctl {

/// The newest alarms of this host as the console shows them. Stateless; every call asks the agent
/// and blocks meanwhile. Null: the agent did not answer, with a sentence in `error`.
class HostAlarms {
  public:
    /// `roots`: the protected paths, which hold incidents together.
    HostAlarms(const ControlClient& client, std::vector<std::string> roots)
        : client_(client), roots_(std::move(roots)) {}

    /// {"incidents": [{"id", "begun_ms", "last_ms", "count", "alarms", "actions", "outcomes",
    /// "common", "slowest_ms"}]}, the newest first. An incident's id is its first report's number.
    Json::Value Incidents(std::string& error) const;

    /// {"incident", "alarms": [{"path", "action", "outcome", "time_ms", "duration_ms", "count",
    /// "diff", "diff_attr", "evidence"}], "left_out"}; an error also when it is not kept.
    Json::Value Incident(long long id, std::string& error) const;

    /// {"points": [[time in ms, duration in ms]]} of what was put back, the oldest first.
    Json::Value Latency(std::string& error) const;

  private:
    Json::Value Newest(std::string& error) const;

    const ControlClient& client_;
    const std::vector<std::string> roots_;
};

}  // namespace Ctl
