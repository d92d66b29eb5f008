#include "service/FleetMetrics.h"

#include <sdk/text/MetricFamily.h>

#include <algorithm>
#include <array>
#include <map>

#include "service/Overview.h"

namespace Collector {

using Family = SDK::MetricFamily;

namespace {

struct Counter {
    const char* fate;
    const char* fact;
    std::uint64_t IntakeCounters::*member;
};

constexpr std::array<Counter, 4> kCounters{{
    {"stored", "reports_stored", &IntakeCounters::stored},
    {"repeated", "reports_repeated", &IntakeCounters::repeated},
    {"too_early", "reports_too_early", &IntakeCounters::too_early},
    {"refused", "messages_refused", &IntakeCounters::refused},
}};

void AddHosts(const Overview& overview, std::string& out) {
    std::map<std::string, int> states{{"healthy", 0}, {"degraded", 0}, {"off", 0}, {"silent", 0}};
    Json::Int64 waiting = 0;
    Json::Int64 lost = 0;
    for (const Json::Value& host : overview.hosts) {
        const std::string health = host["health"].asString();
        const bool is_known = health == "healthy" || health == "degraded";
        ++states[host["silent"].asBool() ? "silent" : (is_known ? health : "off")];
        waiting +=
            std::max<Json::Int64>(0, host["last_seq"].asInt64() - host["stored_seq"].asInt64());
        lost += host["lost"].asInt64();
    }
    Family hosts(out, "sentrel_fleet_hosts", "gauge", "Hosts by their state.");
    for (const auto& [state, count] : states) hosts.Add(count, {{"state", state}});
    Family(out, "sentrel_fleet_waiting_reports", "gauge",
           "Reports that hosts have and that are not stored here, as hosts said last.")
        .Add(waiting);
    Family(out, "sentrel_fleet_lost_reports", "gauge",
           "Reports that hosts dropped before they were stored, since their agents started.")
        .Add(lost);
}

}  // namespace

bool SaveCounters(FleetStore& store, const IntakeCounters& counters) {
    return std::all_of(kCounters.begin(), kCounters.end(), [&](const Counter& one) {
        return store.SetFact(one.fact, static_cast<std::int64_t>(counters.*one.member));
    });
}

bool ReadCounters(FleetStore& store, IntakeCounters& counters) {
    return std::all_of(kCounters.begin(), kCounters.end(), [&](const Counter& one) {
        std::int64_t value = 0;
        const bool good = store.ReadFact(one.fact, value);
        counters.*one.member = static_cast<std::uint64_t>(value);
        return good;
    });
}

bool FormatMetrics(FleetStore& store, const IntakeCounters& counters, std::string& text) {
    Overview overview;
    text.clear();
    if (!ReadOverview(store, overview)) return false;
    Family(text, "sentrel_fleet_collector_running", "gauge", "1: the collector runs.")
        .Add(overview.running);
    Family(text, "sentrel_fleet_collector_listening", "gauge",
           "1: the collector has a connection to the broker.")
        .Add(overview.listening);
    AddHosts(overview, text);
    Family messages(text, "sentrel_fleet_reports_total", "counter",
                    "Messages of hosts by what became of them, since the collector started.");
    for (const Counter& one : kCounters) {
        messages.Add(Json::UInt64{counters.*one.member}, {{"fate", one.fate}});
    }
    Family(text, "sentrel_fleet_database_bytes", "gauge", "Size of the database.")
        .Add(Json::Int64{store.Size()});
    return true;
}

}  // namespace Collector
