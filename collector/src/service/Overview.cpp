#include "service/Overview.h"

#include <sdk/text/JsonUtils.h>
#include <sdk/time/TimeUtils.h>

#include "service/Facts.h"

namespace Collector {

using SDK::JsonUtils;

namespace {

std::int64_t Number(const Json::Value& object, const char* key) {
    return object.isObject() && object[key].isInt64() ? object[key].asInt64() : 0;
}

Json::Value Describe(const HostRecord& host) {
    Json::Value state;
    if (JsonUtils::ParseJsonStr(host.state.data(), host.state.size(), state) != 0) {
        state = Json::Value(Json::objectValue);
    }
    Json::Value row(Json::objectValue);
    row["agent_id"] = host.agent_id;
    row["host"] = JsonUtils::GetStringValue(state, "host", "");
    row["version"] = JsonUtils::GetStringValue(state, "version", "");
    row["silent"] = host.silent;
    row["last_seen_ms"] = Json::Int64{host.last_seen_ms};
    row["health"] = JsonUtils::GetStringValue(state["health"], "state", "unknown");
    row["reasons"] = state["health"].isObject() ? state["health"]["reasons"] : Json::Value();
    row["stored_seq"] = Json::Int64{host.acknowledged};
    row["last_seq"] = Json::Int64{Number(state["reports"], "last_seq")};
    row["lost"] = Json::Int64{Number(state["reports"], "lost")};
    return row;
}

}  // namespace

bool ReadOverview(FleetStore& store, Overview& overview) {
    std::vector<HostRecord> hosts;
    std::int64_t alive_ms = 0;
    std::int64_t listening_ms = 0;
    if (!store.ReadHosts(hosts) || !store.ReadFact(kAliveFact, alive_ms) ||
        !store.ReadFact(kListeningFact, listening_ms)) {
        return false;
    }
    const std::int64_t now_ms = SDK::TimeUtils::GetCurrentTimestampS() * 1000;
    overview.running = now_ms - alive_ms < 4 * kAliveEveryMs;
    overview.listening = overview.running && listening_ms > 0;
    for (const HostRecord& host : hosts) {
        overview.hosts.append(Describe(host));
        const std::string health = overview.hosts[overview.hosts.size() - 1]["health"].asString();
        if (host.silent) {
            ++overview.silent;
        } else if (health != "healthy") {
            ++overview.degraded;
        }
    }
    return true;
}

}  // namespace Collector
