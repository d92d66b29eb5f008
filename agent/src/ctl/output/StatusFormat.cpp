#include "ctl/output/StatusFormat.h"

#include <sdk/text/JsonUtils.h>
#include <sdk/text/StrUtils.h>

#include <algorithm>

#include "ctl/output/Terminal.h"

namespace Ctl {

using SDK::JsonUtils;
using SDK::StrUtils;

namespace {

constexpr std::size_t kMaxPathColumn = 50;
constexpr int kTimeColumn = 9;  ///< width of a time of today
constexpr int kPushes = 2;      ///< the backup type with copies on a backup server

std::string Text(const Json::Value& object, const char* key) {
    return Printable(JsonUtils::GetStringValue(object, key, ""));
}

long long Number(const Json::Value& object, const char* key) {
    if (!object.isObject() || !object[key].isIntegral()) return 0;
    return object[key].asInt64();
}

std::string Count(const Json::Value& object, const char* key) {
    return std::to_string(Number(object, key));
}

std::string When(long long epoch_s, long long now_ms) {
    return epoch_s > 0 ? ShortTime(epoch_s * 1000, now_ms) : "never";
}

std::string Warning(const std::string& text) {
    return Coloured("warning: ", Colour::kYellow) + text + "\n";
}

std::string FormatAgent(const Json::Value& status, long long now_ms) {
    return Coloured("agent", Colour::kBold) +
           StrUtils::Format("       %s  version %s  process %s  since %s\n",
                            Text(status, "agent_id").c_str(), Text(status, "version").c_str(),
                            Count(status, "pid").c_str(),
                            When(Number(status, "started"), now_ms).c_str()) +
           "            " + Text(status, "installation_path") + "\n";
}

/// Empty for a schedule without pauses.
std::string FormatSchedule(const Json::Value& status) {
    Json::Value schedule;
    if (!JsonUtils::GetSubobjectValue(status, "schedule", schedule)) return "";
    const bool told = JsonUtils::GetBoolValue(schedule, "enabled", false) ||
                      !JsonUtils::GetBoolValue(schedule, "working", true) ||
                      schedule["until"].isIntegral();
    return told ? StrUtils::Format("%-10s  %s\n", "schedule", Text(schedule, "text").c_str()) : "";
}

std::string FormatProtection(const Json::Value& status) {
    Json::Value protection;
    if (!JsonUtils::GetSubobjectValue(status, "protection", protection)) return "";
    const bool on = JsonUtils::GetBoolValue(protection, "on", false);
    std::string text = Coloured("protection", Colour::kBold) + "  " +
                       (on ? Coloured("on", Colour::kGreen) : Coloured("off", Colour::kRed));
    if (on && JsonUtils::GetBoolValue(protection, "monitor_only", false)) {
        text += ", monitoring only: changes are reported and not undone";
    }
    if (!on) return text + "\n";
    if (!JsonUtils::GetBoolValue(protection, "working", true)) {
        text += ", " + Coloured("paused by the schedule", Colour::kYellow);
    }
    return text + "\n" + FormatSchedule(status);
}

std::string FormatPaths(const Json::Value& status, long long now_ms) {
    Json::Value paths;
    if (!JsonUtils::GetArrayValue(status, "protected_paths", paths) || paths.empty()) return "";
    std::size_t width = 4;
    for (const Json::Value& path : paths) width = std::max(width, Text(path, "path").size());
    const int column = static_cast<int>(std::min(width, kMaxPathColumn));
    const bool pushes = Number(status["backup"], "type") == kPushes;
    const auto pushed = [pushes](const std::string& when) {
        return pushes ? StrUtils::Format("%-*s  ", kTimeColumn, when.c_str()) : std::string();
    };
    std::string text =
        "\n" +
        Coloured(StrUtils::Format("%-*s  %-4s  %-8s  %8s  %-7s  %-*s  ", column, "path", "kind",
                                  "state", "watched", "restore", kTimeColumn, "backed up") +
                     pushed("pushed") + "backup",
                 Colour::kBold) +
        "\n";
    for (const Json::Value& path : paths) {
        const bool restore = JsonUtils::GetBoolValue(path, "auto_restore", false);
        text += StrUtils::Format(
            "%-*s  %-4s  %-8s  %8s  %-7s  %-*s  ", column, Text(path, "path").c_str(),
            Text(path, "kind").c_str(), Text(path, "state").c_str(),
            Count(path, "watched_directories").c_str(), restore ? "yes" : "no", kTimeColumn,
            When(Number(path, "last_local_backup"), now_ms).c_str());
        text += pushed(When(Number(path, "last_remote_backup"), now_ms)) +
                Text(path, "backup_path") + "\n";
    }
    return text;
}

std::string FormatCounters(const Json::Value& status) {
    Json::Value counters;
    if (!JsonUtils::GetSubobjectValue(status, "counters", counters)) return "";
    std::string text = "\n";
    const auto line = [&](const char* title,
                          std::initializer_list<std::pair<const char*, const char*>> items) {
        std::string values;
        for (const auto& [key, label] : items) {
            if (!counters.isMember(key)) continue;
            values += (values.empty() ? "" : ", ") + Count(counters, key) + " " + label;
        }
        if (!values.empty()) text += StrUtils::Format("%-10s  %s\n", title, values.c_str());
    };
    line("events", {{"events_received", "received"},
                    {"events_delivered", "delivered"},
                    {"events_dropped", "dropped"},
                    {"overflows", "overflows"}});
    line("restores", {{"restores_done", "done"},
                      {"restores_failed", "failed"},
                      {"removals_done", "removals done"},
                      {"removals_failed", "removals failed"}});
    line("alarms", {{"alarms_sent", "sent"}, {"alarms_merged", "merged"}});
    line("reports", {{"reports_stored", "stored"}, {"reports_failed", "failed"}});
    return text;
}

std::string FormatBackup(const Json::Value& status) {
    Json::Value backup;
    if (!JsonUtils::GetSubobjectValue(status, "backup", backup)) return "";
    const auto state = [&backup](const char* key) {
        return JsonUtils::GetBoolValue(backup, key, false) ? "pending" : "up to date";
    };
    const std::string text = StrUtils::Format("%-10s  local %s", "backup", state("local_pending"));
    if (Number(backup, "type") != kPushes) return text + "\n";
    return text + ", remote " + state("remote_pending") + "\n";
}

/// Empty on a host that is not a backup server.
std::string FormatBackupServer(const Json::Value& status, long long now_ms) {
    Json::Value server;
    if (!JsonUtils::GetSubobjectValue(status, "backup_server", server) ||
        !JsonUtils::GetBoolValue(server, "on", false)) {
        return "";
    }
    const bool running = JsonUtils::GetBoolValue(server, "running", false);
    const std::string daemon = running ? Coloured("running", Colour::kGreen) + " as process " +
                                             Count(server, "pid") + " since " +
                                             When(Number(server, "last_start"), now_ms)
                                       : Coloured("not running", Colour::kRed) + ", last started " +
                                             When(Number(server, "last_start"), now_ms);
    return StrUtils::Format("%-10s  ", "server") + daemon + ", " + Count(server, "restarts") +
           " restarts\n" + StrUtils::Format("%-10s  ", "") + "takes backups at " +
           Text(server, "address") + " port " + Count(server, "port") + " into " +
           Text(server, "path") + "\n";
}

std::string FormatPolicies(const Json::Value& status, long long now_ms) {
    std::string text;
    for (const Json::Value& policy : status["policies"]) {
        text += StrUtils::Format("%-10s  %s %s, applied %s\n", "policy",
                                 Text(policy, "feature").c_str(), Text(policy, "state").c_str(),
                                 When(Number(policy, "applied_at"), now_ms).c_str());
    }
    return text.empty() ? "policy      none yet; apply one with morvanectl policy apply\n" : text;
}

std::string PolicyWarnings(const Json::Value& status, long long now_ms) {
    std::string text;
    for (const Json::Value& policy : status["policies"]) {
        if (!policy["last_rejection"].isObject()) continue;
        const Json::Value& rejection = policy["last_rejection"];
        text += Warning("policy of " + Text(policy, "feature") + " refused at " +
                        When(Number(rejection, "at"), now_ms) + ": " + Text(rejection, "message"));
    }
    return text;
}

std::string OpenObjectWarnings(const Json::Value& path, const std::string& name) {
    Json::Value open;
    if (!JsonUtils::GetSubobjectValue(path, "open_objects", open)) return "";
    if (Number(open, "count") <= 0) return "";
    std::string text = Warning(name + " has " + Count(open, "count") +
                               " objects that could not be copied; they are not protected");
    for (const Json::Value& example : open["examples"]) {
        text += Warning("not copied: " + Text(example, "path") + ": " + Text(example, "reason"));
    }
    return text;
}

std::string PathWarnings(const Json::Value& status, long long now_ms) {
    std::string text;
    for (const Json::Value& path : status["protected_paths"]) {
        const std::string state = JsonUtils::GetStringValue(path, "state", "");
        const std::string name = Text(path, "path");
        if (state == "waiting") text += Warning(name + " is not there; it is watched for");
        if (state == "degraded") text += Warning(name + " has directories that cannot be watched");
        text += OpenObjectWarnings(path, name);
        if (Number(path, "held") > 0) {
            text += Warning(name + " has " + Count(path, "held") +
                            " changes that wait for a decision: morvanectl verify lists them, "
                            "morvanectl accept or restore decides");
        }
        const std::string problem = Text(path, "problem");
        if (!problem.empty()) text += Warning(name + " is not protected: " + problem);
        const std::string left_out = Text(path, "attributes_not_compared");
        if (!left_out.empty()) {
            text += Warning(name + ", extended attributes that are not compared: " + left_out);
        }
        const std::string failure = Text(path, "last_failure");
        const long long at = Number(path, "last_failure_at");
        const std::string when = at > 0 ? " at " + When(at, now_ms) : "";
        if (!failure.empty()) text += Warning(name + ", last failure" + when + ": " + failure);
    }
    return text;
}

std::string WatchWarnings(const Json::Value& own) {
    if (!own.isObject()) return {};
    std::string text;
    const long long unwatched = Number(own, "unwatched_directories");
    if (unwatched > 0) {
        text += Warning(
            std::to_string(unwatched) +
            " directories are not protected because they cannot be watched; the agent tries again");
    }
    for (const Json::Value& example : own["unwatched_examples"]) {
        text += Warning("not watched: " + Text(example, "path") + ": " + Text(example, "reason"));
    }
    const std::string limit = Text(own, "queue_limit_problem");
    return limit.empty() ? text : text + Warning(limit);
}

std::string FormatWarnings(const Json::Value& status, long long now_ms) {
    std::string text = PolicyWarnings(status, now_ms);
    for (const Json::Value& module : status["modules"]) {
        if (JsonUtils::GetStringValue(module, "state", "") != "failed") continue;
        text +=
            Warning("module " + Text(module, "name") + " is not used: " + Text(module, "error"));
    }
    for (const Json::Value& task : status["tasks"]) {
        const bool stalled = JsonUtils::GetStringValue(task, "state", "") == "stalled";
        if (stalled) text += Warning("task " + Text(task, "id") + " is stalled");
        if (JsonUtils::GetBoolValue(task, "init_failed", false)) {
            text += Warning("task " + Text(task, "id") + " could not start in full; see the log");
        }
    }
    for (const Json::Value& place : status["unsafe_places"]) {
        text += Warning(Text(place, "path") +
                        " is not safe from other users: " + Text(place, "reason"));
    }
    text += PathWarnings(status, now_ms);
    text += WatchWarnings(status["filenotify"]);
    if (JsonUtils::GetBoolValue(status["rsync"], "degraded", false)) {
        text += Warning("rsync " + Text(status["rsync"], "version") + ": " +
                        Text(status["rsync"], "reason"));
    }
    const long long dropped = Number(status["counters"], "log_records_dropped");
    if (dropped > 0) text += Warning(std::to_string(dropped) + " log records were dropped");
    return text.empty() ? "" : "\n" + text;
}

}  // namespace

std::string FormatStatus(const Json::Value& status, long long now_ms) {
    if (!status.isObject()) return "";
    return FormatAgent(status, now_ms) + FormatProtection(status) + FormatPolicies(status, now_ms) +
           FormatBackup(status) + FormatBackupServer(status, now_ms) + FormatPaths(status, now_ms) +
           FormatCounters(status) + FormatWarnings(status, now_ms);
}

}  // namespace Ctl
