// Owns what has not been printed yet of incidents that go on. It must not read reports.
#include "ctl/commands/reports/IncidentPrinter.h"

#include <utility>

#include "ctl/output/AlarmFormat.h"

namespace Ctl {

IncidentPrinter::IncidentPrinter(std::vector<std::string> roots,
                                 std::function<void(const std::string&)> print)
    : roots_(std::move(roots)), print_(std::move(print)) {}

void IncidentPrinter::Add(const AlarmRecord& alarm, const Json::Value& report, long long now_ms) {
    Open& open = open_[TreeOf(roots_, alarm.path)];
    if (open.shown == 0) open.begun_ms = open.printed_ms = now_ms;
    if (open.shown++ < kShownEach) {
        print_(FormatAlarm(report, false, now_ms));
    } else {
        AddTo(open.more, alarm, report);
    }
}

void IncidentPrinter::PrintMore(Open& open, long long now_ms) {
    if (open.more.alarms > 0) print_(FormatIncident(open.more, now_ms, true));
    open.more = {};
    open.printed_ms = now_ms;
}

void IncidentPrinter::PrintDue(long long now_ms) {
    for (auto at = open_.begin(); at != open_.end();) {
        Open& open = at->second;
        const bool is_over = now_ms - open.begun_ms >= Incidents::kLongestMs;
        if (is_over || now_ms - open.printed_ms >= kSummaryMs) PrintMore(open, now_ms);
        at = is_over ? open_.erase(at) : std::next(at);
    }
}

}  // namespace Ctl
