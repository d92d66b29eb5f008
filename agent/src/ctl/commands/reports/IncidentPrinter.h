#pragma once

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "ctl/output/IncidentFormat.h"

namespace Ctl {

/// Prints alarms as they come: the first few of an incident at once, then what follows in one line
/// every few seconds. Not thread-safe.
class IncidentPrinter {
  public:
    static constexpr std::size_t kShownEach = 5;
    static constexpr long long kSummaryMs = 10 * 1000;

    /// `roots` as in Incidents; `print` receives whole lines.
    IncidentPrinter(std::vector<std::string> roots, std::function<void(const std::string&)> print);

    void Add(const AlarmRecord& alarm, const Json::Value& report, long long now_ms);

    /// Prints the summaries that are due. To be called every few seconds.
    void PrintDue(long long now_ms);

  private:
    struct Open {
        long long begun_ms = 0;  ///< by the clock of the caller, as the next one
        long long printed_ms = 0;
        std::size_t shown = 0;
        Incident more = {};  ///< what has not been printed
    };

    void PrintMore(Open& open, long long now_ms);

    const std::vector<std::string> roots_;
    const std::function<void(const std::string&)> print_;
    std::map<std::string, Open> open_;  ///< by TreeOf
};

}  // namespace Ctl
