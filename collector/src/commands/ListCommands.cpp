#include <sdk/text/JsonUtils.h>

#include <iostream>

#include "centre/Rollouts.h"
#include "commands/Commands.h"
#include "commands/DatabaseAccess.h"

namespace Collector {

namespace {

/// False when the reader of standard output has closed it.
bool Print(const Json::Value& row) {
    std::cout << SDK::JsonUtils::JsonToString(row) << "\n";
    return std::cout.good();
}

int Ended(bool good, const FleetStore& store) {
    std::cout.flush();
    return good ? kExitOk : Fail("cannot read the database: " + store.Error());
}

}  // namespace

int ListReports(const Arguments& arguments) {
    FleetStore store;
    if (!OpenDatabase(arguments, store)) return kExitFailed;
    const ReportQuery query{arguments.agent_id, arguments.kind, arguments.after, arguments.limit};
    return Ended(store.ListReports(query, Print), store);
}

int ListEvents(const Arguments& arguments) {
    FleetStore store;
    if (!OpenDatabase(arguments, store)) return kExitFailed;
    return Ended(store.ListEvents(arguments.limit, Print), store);
}

int ListResults(const Arguments& arguments) {
    FleetStore store;
    if (!OpenDatabase(arguments, store)) return kExitFailed;
    return Ended(store.ListResults(Print), store);
}

int ListActResults(const Arguments& arguments) {
    FleetStore store;
    if (!OpenDatabase(arguments, store)) return kExitFailed;
    return Ended(store.ListActResults(arguments.limit, Print), store);
}

int ListRollouts(const Arguments& arguments) {
    Database::Location database;
    RolloutStore store;
    std::vector<Rollout> newest;
    std::vector<RolloutHost> hosts;
    if (!FindDatabase(arguments, database)) return kExitFailed;
    bool good = store.Open(database) && store.Newest(arguments.limit, newest);
    for (const Rollout& rollout : newest) {
        good = good && store.Hosts(rollout, hosts);
        if (!good || !Print(ToJson(rollout, ProgressOf(rollout, hosts)))) break;
    }
    std::cout.flush();
    return good ? kExitOk : Fail("cannot read the database: " + store.Error());
}

}  // namespace Collector
