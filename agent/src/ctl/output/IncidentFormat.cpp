#include "ctl/output/IncidentFormat.h"

#include <sdk/text/StrUtils.h>

#include <algorithm>
#include <utility>

#include "ctl/output/AlarmFormat.h"
#include "ctl/output/Terminal.h"

namespace Ctl {

using SDK::StrUtils;

namespace {

/// "200 modify, 14 add", the most frequent first.
std::string Counts(const std::map<std::string, long long>& counts, bool in_colour) {
    std::vector<std::pair<std::string, long long>> sorted(counts.begin(), counts.end());
    std::stable_sort(sorted.begin(), sorted.end(),
                     [](const auto& a, const auto& b) { return a.second > b.second; });
    std::string text;
    for (const auto& [name, count] : sorted) {
        if (name.empty()) continue;
        const bool is_failure = name.find("failed") != std::string::npos;
        const std::string part = std::to_string(count) + " " + Printable(name);
        text += text.empty() ? "" : ", ";
        text += in_colour ? Coloured(part, is_failure ? Colour::kRed : Colour::kGreen) : part;
    }
    return text;
}

}  // namespace

std::string FormatIncident(const Incident& incident, long long now_ms, bool more) {
    if (incident.alarms == 1 && incident.count == 1) {
        return FormatAlarm(incident.first, false, now_ms);
    }
    std::string text = StrUtils::Format(
        "%s  %s %s  %s  %s", ShortTime(incident.begun_ms, now_ms).c_str(),
        std::to_string(incident.count).c_str(), more ? "more changes" : "changes",
        Printable(incident.common).c_str(), Counts(incident.actions, false).c_str());
    const std::string outcomes = Counts(incident.outcomes, true);
    if (!outcomes.empty()) text += "; " + outcomes;
    if (incident.slowest_ms >= 0) {
        text += StrUtils::Format(", slowest %.1f ms", incident.slowest_ms);
    }
    return text + "\n";
}

}  // namespace Ctl
