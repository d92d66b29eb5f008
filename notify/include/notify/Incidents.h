#pragma once

#include <json/value.h>

#include <list>
#include <map>
#include <string>
#include <vector>

#include "notify/AlarmRecord.h"

namespace Notify {

/// Changes of one protected path, or of one host of a fleet, within a minute.
struct Incident {
    static constexpr std::size_t kExamples = 5;
    long long begun_ms = 0;
    long long count = 0;  ///< changes
    std::size_t alarms = 0;
    std::map<std::string, long long> actions = {};   ///< changes by action
    std::map<std::string, long long> outcomes = {};  ///< changes by outcome
    std::string common;  ///< the object, or the deepest directory that holds all
    double slowest_ms = -1;
    Json::Value first = {};                  ///< the report of the first alarm
    std::vector<AlarmRecord> examples = {};  ///< the first kExamples alarms
    std::string host = {};                   ///< empty: the host of the message
    std::string agent_id = {};

    /// Something happened to the host itself; the actions say what.
    bool IsOfHost() const { return !agent_id.empty() && common.empty(); }
};

/// Groups alarms, which are given in the order of their time, into incidents. Not thread-safe.
class Incidents {
  public:
    static constexpr long long kLongestMs = 60 * 1000;

    /// `roots`: the protected paths; alarms elsewhere are grouped by their directory. `most`: how
    /// many of the newest incidents are kept; 0: all. `each`: every alarm is one of its own.
    Incidents(std::vector<std::string> roots, std::size_t most, bool each);

    /// True when the alarm began a new incident.
    bool Add(const AlarmRecord& alarm, const Json::Value& report);

    const std::list<Incident>& Kept() const { return kept_; }
    std::size_t Total() const { return total_; }

  private:
    void DropOldest();

    const std::vector<std::string> roots_;
    const std::size_t most_;
    const bool each_;
    std::list<Incident> kept_;
    std::map<std::string, std::list<Incident>::iterator> open_;  ///< by TreeOf
    std::size_t total_ = 0;
};

/// The protected path that holds `path`; its directory when none does.
std::string TreeOf(const std::vector<std::string>& roots, const std::string& path);

/// Adds one more alarm to an incident that is not empty, or begins it.
void AddTo(Incident& incident, const AlarmRecord& alarm, const Json::Value& report);

}  // namespace Notify
