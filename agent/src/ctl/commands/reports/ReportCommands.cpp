#include <sdk/text/JsonUtils.h>
#include <sdk/time/TimeUtils.h>

#include <iostream>

#include "ctl/commands/Commands.h"
#include "ctl/commands/reports/ReportFollower.h"
#include "ctl/output/AlarmFormat.h"

namespace Ctl {

namespace {

std::string FormatOne(const ReportQuery& query, const Json::Value& report) {
    if (query.json) return SDK::JsonUtils::JsonToString(report) + "\n";
    return FormatReport(report, SDK::TimeUtils::GetCurrentTimestampS() * 1000);
}

}  // namespace

int ShowReports(const ControlClient& client, const ReportQuery& query) {
    ReportFollower follower(client, query, [&query](const Json::Value& report) {
        std::cout << FormatOne(query, report) << std::flush;
        return std::cout.good();
    });
    return follower.ReadStored();
}

}  // namespace Ctl
