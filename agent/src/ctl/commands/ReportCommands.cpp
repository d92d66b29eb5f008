#include <sdk/text/JsonUtils.h>
#include <sdk/time/TimeUtils.h>

#include <iostream>

#include "ctl/commands/Commands.h"
#include "ctl/commands/ReportFollower.h"
#include "ctl/output/AlarmFormat.h"

namespace Ctl {

namespace {

std::string FormatOne(const ReportQuery& query, const Json::Value& report) {
    const bool alarm = query.kind == "alarm";
    if (query.json) {
        return SDK::JsonUtils::JsonToString(alarm ? AlarmObject(report) : report) + "\n";
    }
    const long long now_ms = SDK::TimeUtils::GetCurrentTimestampS() * 1000;
    return alarm ? FormatAlarm(report, query.diff, now_ms) : FormatReport(report, now_ms);
}

}  // namespace

int ShowReports(const ControlClient& client, const ReportQuery& query) {
    ReportFollower follower(client, query, [&query](const Json::Value& report) {
        std::cout << FormatOne(query, report) << std::flush;
        return std::cout.good();
    });
    return query.follow ? follower.Follow() : follower.ReadStored();
}

}  // namespace Ctl
