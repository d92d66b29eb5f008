#include <sdk/text/JsonUtils.h>
#include <sdk/text/Printable.h>
#include <sdk/text/Terminal.h>
#include <sdk/time/TimeUtils.h>

#include <iostream>

#include "commands/Commands.h"
#include "commands/DatabaseAccess.h"
#include "service/CollectorService.h"
#include "service/Overview.h"

namespace Collector {

using SDK::JsonUtils;

namespace {

std::string CollectorLine(const Overview& overview) {
    if (!overview.running) return "The collector does not run. What follows may be old.";
    if (!overview.listening) return "The collector has no connection to the broker.";
    return "The collector runs.";
}

void PrintHost(const Json::Value& host) {
    const std::int64_t now_ms = SDK::TimeUtils::GetCurrentTimestampS() * 1000;
    const bool silent = host["silent"].asBool();
    const std::string health = host["health"].asString();
    const SDK::Colour colour =
        silent ? SDK::Colour::kRed
               : (health == "healthy" ? SDK::Colour::kGreen : SDK::Colour::kYellow);
    std::cout << "  " << SDK::Coloured(silent ? "silent" : SDK::Printable(health), colour) << "  "
              << host["agent_id"].asString() << "  " << SDK::Printable(host["host"].asString())
              << "  last heard " << SDK::ShortTime(host["last_seen_ms"].asInt64(), now_ms)
              << ", reports stored to " << host["stored_seq"].asString() << " of "
              << host["last_seq"].asString() << "\n";
    if (!host["reasons"].isArray()) return;
    for (const Json::Value& reason : host["reasons"]) {
        std::cout << "          " << SDK::Printable(JsonUtils::GetStringValue(reason, "text", ""))
                  << "\n";
    }
}

void Print(const Overview& overview) {
    std::cout << CollectorLine(overview) << "\n"
              << overview.hosts.size() << " hosts: " << overview.silent << " silent, "
              << overview.degraded << " degraded or off.\n";
    for (const Json::Value& host : overview.hosts) PrintHost(host);
}

void PrintJson(const Overview& overview) {
    Json::Value document(Json::objectValue);
    document["running"] = overview.running;
    document["listening"] = overview.listening;
    document["silent"] = overview.silent;
    document["degraded"] = overview.degraded;
    document["hosts"] = overview.hosts;
    std::cout << JsonUtils::JsonToString(document) << "\n";
}

}  // namespace

int ShowStatus(const Arguments& arguments) {
    FleetStore store;
    Overview overview;
    if (!OpenDatabase(arguments, store)) return kExitFailed;
    if (!ReadOverview(store, overview)) return Fail("cannot read the database: " + store.Error());
    arguments.json ? PrintJson(overview) : Print(overview);
    std::cout.flush();
    if (!overview.listening) return kExitNotWorking;
    if (overview.silent > 0) return kExitSilent;
    return overview.degraded > 0 ? kExitDegraded : kExitOk;
}

int Run(const Arguments& arguments) {
    CollectorSettings settings;
    std::string error;
    if (!ReadSettings(arguments.config, settings, error)) return Fail(error);
    if (!arguments.database.empty()) settings.database = arguments.database;
    return CollectorService(settings).Run();
}

}  // namespace Collector
