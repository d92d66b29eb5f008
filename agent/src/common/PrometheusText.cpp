// Knows the names of the metrics and the text format. It must not gather anything.
#include "common/PrometheusText.h"

#include <sdk/text/JsonUtils.h>
#include <sdk/text/MetricFamily.h>
#include <sdk/text/StrUtils.h>

#include <utility>
#include <vector>

namespace Agent {

using SDK::JsonUtils;

namespace {

constexpr double kMsPerSecond = 1000;
// Values of a policy's "backup_type".
constexpr int kRemoteOnly = 1;
constexpr int kLocalAndRemote = 2;
constexpr int kMadeByOthers = 3;

using Labels = SDK::MetricLabels;
using Family = SDK::MetricFamily;

/// The member at the end of `keys`; null when one of them is missing.
Json::Value At(const Json::Value& object, std::initializer_list<const char*> keys) {
    Json::Value value = object;
    for (const char* key : keys) {
        if (!value.isObject() || !value.isMember(key)) return {};
        value = Json::Value(value[key]);
    }
    return value;
}

/// A metric whose samples are members of one object, each with a label.
struct Group {
    const char* name;
    const char* type;
    const char* help;
    const char* object;  ///< member of the document
    const char* label;
    std::vector<std::pair<const char*, const char*>> members;  ///< key and label value
};

const std::vector<Group>& Groups() {
    static const std::vector<Group> groups = {
        {"sentrel_events_total",
         "counter",
         "Changes that the kernel told.",
         "counters",
         "stage",
         {{"events_received", "received"},
          {"events_delivered", "delivered"},
          {"events_merged", "merged"},
          {"events_dropped", "dropped"}}},
        {"sentrel_undone_total",
         "counter",
         "Changes that were undone.",
         "counters",
         "how",
         {{"restores_done", "restored"}, {"removals_done", "removed"}}},
        {"sentrel_undo_failures_total",
         "counter",
         "Tries to undo a change that failed.",
         "counters",
         "how",
         {{"restores_failed", "restore"}, {"removals_failed", "removal"}}},
        {"sentrel_alarms_total",
         "counter",
         "Alarms by what became of them.",
         "counters",
         "fate",
         {{"alarms_sent", "sent"}, {"alarms_merged", "merged"}, {"alarms_lost", "lost"}}},
        {"sentrel_reports_total",
         "counter",
         "Reports by what became of them.",
         "counters",
         "fate",
         {{"reports_stored", "stored"}, {"reports_failed", "failed"}, {"reports_lost", "lost"}}},
        {"sentrel_attributions_total",
         "counter",
         "Changes that the sentry was asked about, by how surely it names their process.",
         "counters",
         "certainty",
         {{"who_exact", "exact"}, {"who_likely", "likely"}, {"who_unknown", "unknown"}}},
        {"sentrel_waiting_changes",
         "gauge",
         "Changes that wait to be judged again.",
         "backlog",
         "why",
         {{"deferred", "first_copy"},
          {"failed", "failed"},
          {"given_up", "given_up"},
          {"large_files", "large_file"},
          {"trees_to_compare", "tree"}}},
    };
    return groups;
}

/// A metric with one sample.
struct Single {
    const char* name;
    const char* type;
    const char* help;
    std::vector<const char*> keys;
};

const std::vector<Single>& Singles() {
    static const std::vector<Single> singles = {
        {"sentrel_start_time_seconds", "gauge", "When the agent started.", {"started"}},
        {"sentrel_protection_on",
         "gauge",
         "1: a policy switches the protection on.",
         {"protection", "on"}},
        {"sentrel_protection_working",
         "gauge",
         "1: on, and not paused by the schedule.",
         {"protection", "working"}},
        {"sentrel_last_undone_timestamp_seconds",
         "gauge",
         "When a change was undone last.",
         {"protection", "last_undone"}},
        {"sentrel_queue_overflows_total",
         "counter",
         "Overflows of the kernel's event queue.",
         {"counters", "overflows"}},
        {"sentrel_retries_total",
         "counter",
         "Changes that were judged again.",
         {"counters", "retries"}},
        {"sentrel_retries_given_up_total",
         "counter",
         "Changes that all tries failed to undo.",
         {"counters", "retries_given_up"}},
        {"sentrel_found_by_reconciler_total",
         "counter",
         "Changes that the kernel did not tell.",
         {"counters", "found_by_looks"}},
        {"sentrel_planted_links_removed_total",
         "counter",
         "Links in the place of other objects.",
         {"counters", "planted_links_removed"}},
        {"sentrel_log_records_dropped_total",
         "counter",
         "Log records that were dropped.",
         {"counters", "log_records_dropped"}},
        {"sentrel_pending_events",
         "gauge",
         "Events that wait in the agent.",
         {"filenotify", "pending_events"}},
        {"sentrel_event_queue_limit",
         "gauge",
         "How many events the kernel keeps.",
         {"filenotify", "queue_limit"}},
        {"sentrel_watched_directories",
         "gauge",
         "Directories with an inotify watch.",
         {"filenotify", "watched_directories"}},
        {"sentrel_unwatched_directories",
         "gauge",
         "Directories that cannot be watched.",
         {"filenotify", "unwatched_directories"}},
        {"sentrel_watch_limit",
         "gauge",
         "The host's limit of inotify watches for a user.",
         {"watch_limit"}},
        {"sentrel_report_store_bytes", "gauge", "Size of the report store.", {"reports", "bytes"}},
        {"sentrel_report_store_working",
         "gauge",
         "1: reports can be stored.",
         {"reports", "working"}},
    };
    return singles;
}

/// A metric with one sample for each protected path.
struct PathMetric {
    const char* name;
    const char* help;
    std::vector<const char*> keys;
};

const std::vector<PathMetric>& PathMetrics() {
    static const std::vector<PathMetric> metrics = {
        {"sentrel_backup_timestamp_seconds",
         "When the path was copied last.",
         {"last_local_backup"}},
        {"sentrel_remote_backup_timestamp_seconds",
         "When the path was pushed last.",
         {"last_remote_backup"}},
        {"sentrel_backup_complete", "1: the backup copy is complete.", {"backup_complete"}},
        {"sentrel_reconcile_timestamp_seconds",
         "When the reconciler ended its last look.",
         {"last_look", "ended_at"}},
        {"sentrel_check_timestamp_seconds",
         "When the path was last compared with its manifest.",
         {"last_check", "ended_at"}},
        {"sentrel_last_failure_timestamp_seconds",
         "When something failed last for the path.",
         {"last_failure_at"}},
        {"sentrel_path_watched_directories",
         "Watched directories of the path.",
         {"watched_directories"}},
        {"sentrel_held_changes", "Changes that wait for a decision.", {"held"}},
        {"sentrel_open_objects", "Objects that could not be copied.", {"open_objects", "count"}},
    };
    return metrics;
}

Json::Value Member(const Json::Value& object, const std::vector<const char*>& keys) {
    Json::Value value = object;
    for (const char* key : keys) value = At(value, {key});
    return value;
}

Json::Value ListAt(const Json::Value& status, const char* key) {
    Json::Value list(Json::arrayValue);
    JsonUtils::GetArrayValue(status, key, list);
    return list;
}

void AddHealth(const Json::Value& status, std::string& out) {
    Json::Value health;
    if (!JsonUtils::GetSubobjectValue(status, "health", health)) return;
    const std::string now = JsonUtils::GetStringValue(health, "state", "");
    Family states(out, "sentrel_health", "gauge", "1 for the state of the protection.");
    for (const char* state : {"healthy", "degraded", "off"}) {
        states.Add(Json::Value(now == state), {{"state", state}});
    }
    Family reasons(out, "sentrel_health_reason", "gauge", "1 for each reason of the state.");
    for (const Json::Value& reason : ListAt(health, "reasons")) {
        reasons.Add(true, {{"code", JsonUtils::GetStringValue(reason, "code", "")},
                           {"path", JsonUtils::GetStringValue(reason, "path", "")}});
    }
}

/// The flags mean nothing for copies that the agent does not make.
void AddBackup(const Json::Value& status, std::string& out) {
    const Json::Value type = At(status, {"backup", "type"});
    if (!type.isInt()) return;
    const bool makes_copies = type.asInt() != kRemoteOnly && type.asInt() != kMadeByOthers;
    Family family(out, "sentrel_backup_pending", "gauge", "1: a backup is not complete.");
    if (makes_copies) family.Add(At(status, {"backup", "local_pending"}), {{"where", "local"}});
    if (type.asInt() != kLocalAndRemote) return;
    family.Add(At(status, {"backup", "remote_pending"}), {{"where", "remote"}});
}

void AddLatency(const Json::Value& status, std::string& out) {
    const Json::Value latency = At(status, {"undo_latency"});
    const Json::Value count = At(latency, {"count"});
    const Json::Value sum = At(latency, {"sum_ms"});
    if (!count.isIntegral() || !sum.isNumeric()) return;
    Family family(out, "sentrel_undo_duration_seconds", "histogram",
                  "From reading an event to its change being undone.");
    for (const Json::Value& bucket : ListAt(latency, "buckets")) {
        if (!At(bucket, {"le_ms"}).isNumeric()) continue;
        const double bound = bucket["le_ms"].asDouble() / kMsPerSecond;
        family.Add(At(bucket, {"count"}), {{"le", SDK::StrUtils::Format("%g", bound)}}, "_bucket");
    }
    family.Add(count, {{"le", "+Inf"}}, "_bucket");
    family.Add(Json::Value(sum.asDouble() / kMsPerSecond), {}, "_sum");
    family.Add(count, {}, "_count");
}

void AddPaths(const Json::Value& status, std::string& out) {
    const Json::Value paths = ListAt(status, "protected_paths");
    for (const PathMetric& metric : PathMetrics()) {
        Family family(out, metric.name, "gauge", metric.help);
        for (const Json::Value& path : paths) {
            family.Add(Member(path, metric.keys),
                       {{"path", JsonUtils::GetStringValue(path, "path", "")}});
        }
    }
    Family states(out, "sentrel_path_state", "gauge", "1 for the state of the path's watches.");
    for (const Json::Value& path : paths) {
        states.Add(true, {{"path", JsonUtils::GetStringValue(path, "path", "")},
                          {"state", JsonUtils::GetStringValue(path, "state", "")}});
    }
}

void AddNotifications(const Json::Value& status, std::string& out) {
    const Json::Value channels = ListAt(status, "notifications");
    const auto add = [&](Family family, const char* key) {
        for (const Json::Value& channel : channels) {
            family.Add(At(channel, {key}),
                       {{"channel", JsonUtils::GetStringValue(channel, "channel", "")}});
        }
    };
    add(Family(out, "sentrel_notification_working", "gauge",
               "1: the last message of the channel arrived."),
        "working");
    add(Family(out, "sentrel_notifications_sent_total", "counter", "Messages that arrived."),
        "deliveries");
    add(Family(out, "sentrel_notification_failures_total", "counter",
               "Tries to send a message that failed."),
        "failures");
    add(Family(out, "sentrel_notification_lost_reports_total", "counter",
               "Reports that were dropped before they were sent."),
        "lost_reports");
}

void AddTasks(const Json::Value& status, std::string& out) {
    Family family(out, "sentrel_queue_length", "gauge", "Messages that wait for a task.");
    for (const Json::Value& task : ListAt(status, "tasks")) {
        family.Add(At(task, {"queue_length"}),
                   {{"task", JsonUtils::GetStringValue(task, "id", "")}});
    }
}

}  // namespace

std::string FormatMetrics(const Json::Value& status) {
    std::string out;
    Family(out, "sentrel_info", "gauge", "The agent's version.")
        .Add(true, {{"version", JsonUtils::GetStringValue(status, "version", "")}});
    AddHealth(status, out);
    for (const Single& single : Singles()) {
        Family(out, single.name, single.type, single.help).Add(Member(status, single.keys));
    }
    for (const Group& group : Groups()) {
        Family family(out, group.name, group.type, group.help);
        for (const auto& [key, value] : group.members) {
            family.Add(At(status, {group.object, key}), {{group.label, value}});
        }
    }
    AddBackup(status, out);
    AddLatency(status, out);
    AddTasks(status, out);
    AddNotifications(status, out);
    AddPaths(status, out);
    return out;
}

}  // namespace Agent
