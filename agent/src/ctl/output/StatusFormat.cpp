#include "ctl/output/StatusFormat.h"

#include <sdk/text/JsonUtils.h>
#include <sdk/text/StrUtils.h>

#include "ctl/output/HealthFormat.h"
#include "ctl/output/JsonFields.h"
#include "ctl/output/StatusWarnings.h"
#include "ctl/output/Terminal.h"

namespace Ctl {

using SDK::JsonUtils;
using SDK::StrUtils;

namespace {

constexpr char kHint[] = "\nWhat a word in [ ] means, and what to do: morvanectl explain WORD\n";
constexpr int kPushes = 2;  ///< the backup type with copies on a backup server

std::string Line(const char* title, const std::string& text) {
    return StrUtils::Format("%-9s %s\n", title, text.c_str());
}

/// "ready, 12 directories watched, changes are undone".
std::string Watching(const Json::Value& path, bool monitor_only) {
    const bool is_undone = Flag(path, "auto_restore") && !monitor_only;
    const long long directories = Number(path, "watched_directories");
    return Text(path, "state") + ", " +
           (directories == 1 ? "1 directory" : std::to_string(directories) + " directories") +
           " watched, changes are " + (is_undone ? "undone" : "only reported");
}

/// "copied 09:12:33 to /var/backups/site; pushed 09:12:40".
std::string Copies(const Json::Value& path, bool pushes, long long now_ms) {
    if (Text(path, "backup_path").empty()) return "no backup copy";
    const long long copied = Number(path, "last_local_backup");
    std::string text =
        copied > 0 ? "copied " + When(copied, now_ms) + " to " : "not copied yet to ";
    text += Text(path, "backup_path");
    if (pushes) text += "; pushed " + When(Number(path, "last_remote_backup"), now_ms);
    return text;
}

/// "until 11:00:00, user 0, process 1734: REASON"
std::string FormatOrigin(const Json::Value& operation, long long now_ms) {
    const std::string reason = Text(operation, "reason");
    return "until " + When(Number(operation, "until"), now_ms) + ", user " +
           std::to_string(Number(operation, "user")) + ", process " +
           std::to_string(Number(operation, "process")) + (reason.empty() ? "" : ": " + reason) +
           "\n";
}

/// Open pauses and deploys.
std::string FormatOperations(const Json::Value& status, long long now_ms) {
    std::string text;
    for (const Json::Value& pause : status["pauses"]) {
        text += StrUtils::Format("%-10s  ", "pause") + Text(pause, "path") + " " +
                FormatOrigin(pause, now_ms);
    }
    for (const Json::Value& deploy : status["deploys"]) {
        text += StrUtils::Format("%-10s  ", "deploy") + Text(deploy, "id") + " of " +
                Text(deploy, "path") + " " + Text(deploy, "state") + " " +
                FormatOrigin(deploy, now_ms);
    }
    return text;
}

std::string FormatPaths(const Json::Value& status, long long now_ms) {
    Json::Value paths;
    if (!JsonUtils::GetArrayValue(status, "protected_paths", paths) || paths.empty()) return "";
    const bool pushes = Number(status["backup"], "type") == kPushes;
    const bool monitor_only = Flag(status["protection"], "monitor_only");
    std::string text = "\n";
    for (const Json::Value& path : paths) {
        const std::string name = Text(path, "path");
        text += Coloured(name, Colour::kBold) + "\n    " + Watching(path, monitor_only) + "\n    " +
                Copies(path, pushes, now_ms) + "\n" + FormatReasonsOf(status, name);
    }
    return text;
}

/// Why alarms name nobody, or not for sure. Empty when nothing hinders it.
std::string FormatWho(const Json::Value& who) {
    if (Text(who, "state") == "refused") return Line("authors", "unknown: " + Text(who, "why"));
    const std::string why = Text(who, "process_events_why");
    return why.empty() ? "" : Line("authors", "not for sure: " + why);
}

/// "running", "off" or "refused: why".
std::string FormatSentry(const Json::Value& status) {
    Json::Value sentry;
    if (!JsonUtils::GetSubobjectValue(status, "sentry", sentry)) return "";
    const std::string why = Text(sentry, "why");
    return Line("sentry", Text(sentry, "state") + (why.empty() ? "" : ": " + why)) +
           FormatWho(sentry["who"]);
}

/// Empty for a schedule without pauses.
std::string FormatSchedule(const Json::Value& status) {
    Json::Value schedule;
    if (!JsonUtils::GetSubobjectValue(status, "schedule", schedule) ||
        !Flag(status["protection"], "on")) {
        return "";
    }
    const bool told = Flag(schedule, "enabled") ||
                      !JsonUtils::GetBoolValue(schedule, "working", true) ||
                      schedule["until"].isIntegral();
    return told ? Line("schedule", Text(schedule, "text")) : "";
}

std::string FormatBackup(const Json::Value& status) {
    Json::Value backup;
    if (!JsonUtils::GetSubobjectValue(status, "backup", backup) ||
        !Flag(status["protection"], "on")) {
        return "";
    }
    const auto state = [&backup](const char* key) {
        return std::string(Flag(backup, key) ? "pending" : "up to date");
    };
    const bool pushes = Number(backup, "type") == kPushes;
    return Line("backup", "local " + state("local_pending") +
                              (pushes ? ", remote " + state("remote_pending") : ""));
}

/// Empty on a host that is not a backup server.
std::string FormatBackupServer(const Json::Value& status, long long now_ms) {
    Json::Value server;
    if (!JsonUtils::GetSubobjectValue(status, "backup_server", server) || !Flag(server, "on")) {
        return "";
    }
    const std::string started = When(Number(server, "last_start"), now_ms);
    const std::string daemon =
        Flag(server, "running")
            ? Coloured("running", Colour::kGreen) + " as process " +
                  std::to_string(Number(server, "pid")) + " since " + started
            : Coloured("not running", Colour::kRed) + ", last started " + started;
    return Line("server", daemon + ", " + Counted(Number(server, "restarts"), "restart")) +
           Line("", "takes backups at " + Text(server, "address") + " port " +
                        std::to_string(Number(server, "port")) + " into " + Text(server, "path"));
}

std::string FormatCounters(const Json::Value& status) {
    Json::Value counters;
    if (!JsonUtils::GetSubobjectValue(status, "counters", counters)) return "";
    std::string text;
    const auto line = [&](const char* title,
                          std::initializer_list<std::pair<const char*, const char*>> items) {
        std::string values;
        for (const auto& [key, label] : items) {
            if (!counters.isMember(key)) continue;
            values +=
                (values.empty() ? "" : ", ") + std::to_string(Number(counters, key)) + " " + label;
        }
        if (!values.empty()) text += Line(title, values);
    };
    line("events", {{"events_received", "received"},
                    {"events_delivered", "delivered"},
                    {"events_dropped", "dropped"},
                    {"overflows", "overflows"}});
    line("undone", {{"restores_done", "restored"},
                    {"removals_done", "removed"},
                    {"restores_failed", "restores failed"},
                    {"removals_failed", "removals failed"}});
    line("alarms", {{"alarms_sent", "sent"}, {"alarms_merged", "merged as repeats"}});
    return text;
}

std::string FormatPolicies(const Json::Value& status, long long now_ms) {
    std::string text;
    for (const Json::Value& policy : status["policies"]) {
        text += Line("policy", Text(policy, "feature") + " " + Text(policy, "state") +
                                   ", applied " + When(Number(policy, "applied_at"), now_ms));
    }
    return text.empty() ? Line("policy", "none yet; morvanectl protect DIR makes one") : text;
}

/// Nothing where the host belongs to no fleet.
std::string FormatFleet(const Json::Value& status) {
    const Json::Value& fleet = status["fleet"];
    if (!fleet.isObject()) return "";
    const bool is_connected = SDK::JsonUtils::GetBoolValue(fleet, "connected", false);
    return Line("fleet",
                Text(fleet, "broker") +
                    (is_connected ? " connected" : " not connected: " + Text(fleet, "error")) +
                    ", reports stored there up to " +
                    std::to_string(Number(fleet, "acknowledged")) + " of " +
                    std::to_string(Number(fleet, "last_seq")));
}

std::string FormatAgent(const Json::Value& status, long long now_ms) {
    return Line("agent", Text(status, "version") + ", process " +
                             std::to_string(Number(status, "pid")) + ", since " +
                             When(Number(status, "started"), now_ms)) +
           Line("", Text(status, "installation_path") + ", id " + Text(status, "agent_id"));
}

}  // namespace

std::string FormatStatus(const Json::Value& status, long long now_ms) {
    if (!status.isObject()) return "";
    const std::string warnings = FormatWarnings(status, now_ms);
    const bool has_words = !warnings.empty() || HealthOf(status) != Health::kHealthy;
    return FormatHeadline(status, now_ms) + FormatGeneralReasons(status) +
           FormatOperations(status, now_ms) + FormatPaths(status, now_ms) + "\n" +
           FormatSchedule(status) + FormatSentry(status) + FormatBackup(status) +
           FormatBackupServer(status, now_ms) + FormatCounters(status) +
           FormatPolicies(status, now_ms) + FormatFleet(status) + FormatAgent(status, now_ms) +
           warnings + (has_words ? kHint : "");
}

}  // namespace Ctl
