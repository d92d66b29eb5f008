#include "ctl/commands/reports/AlarmCommand.h"

#include <sdk/text/JsonUtils.h>
#include <sdk/time/TimeUtils.h>

#include <iostream>

#include "ctl/client/ExitCodes.h"
#include "ctl/commands/Commands.h"
#include "ctl/commands/reports/IncidentPrinter.h"
#include "ctl/commands/reports/ReportFollower.h"
#include "ctl/output/AlarmFormat.h"
#include "ctl/output/IncidentFormat.h"

namespace Ctl {

namespace {

constexpr long long kFirstWindow = 5000;  ///< reports that are read from the end
constexpr long long kWindowGrowth = 8;
constexpr long long kMsPerSecond = 1000;

long long NowMs() {
    return SDK::TimeUtils::GetCurrentTimestampS() * kMsPerSecond;
}

/// The protected paths, which hold the incidents together; none when the agent does not tell.
std::vector<std::string> Roots(const ControlClient& client) {
    std::vector<std::string> roots;
    const Answer answer = client.Get("/v1/status");
    if (answer.kind != Answer::Kind::kAnswered || !answer.body.isObject()) return roots;
    for (const Json::Value& path : answer.body["protected_paths"]) {
        roots.push_back(SDK::JsonUtils::GetStringValue(path, "path", ""));
    }
    return roots;
}

ReportQuery QueryFor(const AlarmOptions& options) {
    ReportQuery query;
    query.kind = "alarm";
    query.has_since = options.filter.since_ms > 0;
    query.since = options.filter.since_ms / kMsPerSecond;
    return query;
}

/// kExitOk, with what the reports hold in `incidents`.
int Collect(const ControlClient& client, const AlarmOptions& options, const ReportQuery& query,
            Incidents& incidents) {
    ReportFollower follower(client, query, [&](const Json::Value& report) {
        const AlarmRecord alarm = ReadAlarm(report);
        if (options.filter.Matches(alarm)) incidents.Add(alarm, report);
        return true;
    });
    return follower.ReadStored();
}

/// The number of the newest report; kExitOk or an exit code.
int ReadNewest(const ControlClient& client, long long& newest) {
    const Answer answer = client.Get("/v1/reports?limit=1");
    if (answer.kind != Answer::Kind::kAnswered || answer.status != 200) return PrintFailure(answer);
    newest = answer.body["last_seq"].isInt64() ? answer.body["last_seq"].asInt64() : 0;
    return kExitOk;
}

std::string FormatOne(const AlarmOptions& options, const Incident& incident, long long now_ms) {
    if (options.json) return SDK::JsonUtils::JsonToString(AlarmObject(incident.first)) + "\n";
    if (options.diff) return FormatAlarm(incident.first, true, now_ms);
    return FormatIncident(incident, now_ms);
}

void Print(const AlarmOptions& options, const Incidents& incidents) {
    const long long now_ms = NowMs();
    for (const Incident& incident : incidents.Kept()) {
        std::cout << FormatOne(options, incident, now_ms);
        if (!std::cout.good()) return;
    }
    std::cout << std::flush;
    const std::size_t left_out = incidents.Total() - incidents.Kept().size();
    if (left_out > 0 && !options.json && options.filter.since_ms > 0) {
        std::cerr << "note: " << left_out << " earlier ones are not shown; -n 0 shows all"
                  << std::endl;
    }
}

bool IsEach(const AlarmOptions& options) {
    return options.all || options.diff || options.json;
}

int ShowStored(const ControlClient& client, const AlarmOptions& options) {
    const std::vector<std::string> roots = Roots(client);
    ReportQuery query = QueryFor(options);
    long long newest = 0;
    if (const int failed = ReadNewest(client, newest); failed != kExitOk) return failed;
    for (long long window = kFirstWindow;; window *= kWindowGrowth) {
        const bool is_whole = query.has_since || options.limit == 0 || window >= newest;
        query.after = is_whole ? 0 : newest - window;
        Incidents incidents(roots, options.limit, IsEach(options));
        if (const int failed = Collect(client, options, query, incidents); failed != kExitOk) {
            return failed;
        }
        // The first one may have begun before the window.
        if (!is_whole && incidents.Total() <= options.limit) continue;
        Print(options, incidents);
        return kExitOk;
    }
}

int FollowAlarms(const ControlClient& client, const AlarmOptions& options) {
    const auto print = [](const std::string& lines) { std::cout << lines << std::flush; };
    IncidentPrinter printer(Roots(client), print);
    ReportFollower follower(
        client, QueryFor(options),
        [&](const Json::Value& report) {
            const AlarmRecord alarm = ReadAlarm(report);
            if (!options.filter.Matches(alarm)) return true;
            if (IsEach(options)) {
                Incident one;
                AddTo(one, alarm, report);
                print(FormatOne(options, one, NowMs()));
            } else {
                printer.Add(alarm, report, NowMs());
            }
            return std::cout.good();
        },
        [&] { printer.PrintDue(NowMs()); });
    return follower.Follow();
}

}  // namespace

int ShowAlarms(const ControlClient& client, const AlarmOptions& options) {
    return options.follow ? FollowAlarms(client, options) : ShowStored(client, options);
}

}  // namespace Ctl
