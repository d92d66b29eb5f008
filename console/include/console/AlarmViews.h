#pragma once

#include <json/value.h>

#include <string>
#include <vector>

namespace Console {

// What the page shows of alarms. `reports`: an array of reports (Notify::AlarmRecord) in the order
// of their numbers, as hostile as any host. `roots`: the protected paths, which hold incidents
// together. Stateless and thread-safe.

/// {"incidents": [{"id", "begun_ms", "last_ms", "count", "alarms", "actions", "outcomes", "common",
/// "slowest_ms"}]}, the newest first, at most 50. An incident's id is its first report's number.
Json::Value IncidentsIn(const Json::Value& reports, const std::vector<std::string>& roots);

/// {"incident", "alarms": [{"path", "action", "outcome", "time_ms", "duration_ms", "count", "diff",
/// "diff_attr", "evidence", "who", "who_lines"}], "left_out"}, at most 200 alarms; null when it is
/// not among them.
Json::Value IncidentIn(const Json::Value& reports, const std::vector<std::string>& roots,
                       long long id);

/// {"points": [[time in ms, duration in ms]]} of what was put back, the oldest first, at most 500.
Json::Value LatencyIn(const Json::Value& reports);

}  // namespace Console
