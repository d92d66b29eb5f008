#include "ctl/output/StatusWarnings.h"

#include <sdk/text/JsonUtils.h>

#include "ctl/output/JsonFields.h"
#include "ctl/output/Terminal.h"

namespace Ctl {

using SDK::JsonUtils;

namespace {

using Warnings = std::vector<StatusWarning>;

/// `code`: what "morvanectl explain" takes.
StatusWarning Warning(const char* code, const std::string& text) {
    return {code, text};
}

/// More about a reason of the health, or about a former failure.
StatusWarning Detail(StatusWarning warning) {
    warning.is_detail = true;
    return warning;
}

void AddPolicies(const Json::Value& status, long long now_ms, Warnings& warnings) {
    for (const Json::Value& policy : status["policies"]) {
        Json::Value rejection;
        if (!JsonUtils::GetSubobjectValue(policy, "last_rejection", rejection) ||
            Text(policy, "state") == "failed") {
            continue;
        }
        warnings.push_back(Warning("policy_refused", "policy of " + Text(policy, "feature") +
                                                         " refused at " +
                                                         When(Number(rejection, "at"), now_ms) +
                                                         ": " + Text(rejection, "message")));
    }
}

void AddPaths(const Json::Value& status, long long now_ms, Warnings& warnings) {
    for (const Json::Value& path : status["protected_paths"]) {
        Json::Value open;
        if (JsonUtils::GetSubobjectValue(path, "open_objects", open)) {
            for (const Json::Value& example : open["examples"]) {
                warnings.push_back(
                    Detail(Warning("open_objects", "not copied: " + Text(example, "path") + ": " +
                                                       Text(example, "reason"))));
            }
        }
        const std::string failure = Text(path, "last_failure");
        const long long at = Number(path, "last_failure_at");
        const std::string when = at > 0 ? " at " + When(at, now_ms) : "";
        if (failure.empty()) continue;
        warnings.push_back(Detail(Warning(
            "last_failure", Text(path, "path") + ", last failure" + when + ": " + failure)));
    }
}

void AddWatches(const Json::Value& own, Warnings& warnings) {
    if (!own.isObject()) return;
    const long long unwatched = Number(own, "unwatched_directories");
    if (unwatched > 0) {
        warnings.push_back(Detail(Warning(
            "unwatched_directories",
            std::to_string(unwatched) +
                " directories are not protected because they cannot be watched; the agent tries "
                "again")));
    }
    for (const Json::Value& example : own["unwatched_examples"]) {
        warnings.push_back(
            Detail(Warning("unwatched_directories", "not watched: " + Text(example, "path") + ": " +
                                                        Text(example, "reason"))));
    }
    const std::string limit = Text(own, "queue_limit_problem");
    if (!limit.empty()) warnings.push_back(Warning("queue_limit", limit));
}

void AddPlaces(const Json::Value& status, Warnings& warnings) {
    for (const Json::Value& place : status["unsafe_places"]) {
        warnings.push_back(Warning(
            "unsafe_place",
            Text(place, "path") + " is not safe from other users: " + Text(place, "reason")));
    }
}

void AddReports(const Json::Value& status, Warnings& warnings) {
    const Json::Value& reports = status["reports"];
    if (reports.isObject() && !JsonUtils::GetBoolValue(reports, "working", true)) {
        warnings.push_back(
            Warning("report_store", "the report store does not work: " + Text(reports, "error")));
    }
    const long long lost = Number(status["counters"], "alarms_lost");
    if (lost > 0) {
        warnings.push_back(
            Warning("alarms_lost", Counted(lost, "alarm") + " could not be stored; see the log"));
    }
}

}  // namespace

std::vector<StatusWarning> WarningsOf(const Json::Value& status, long long now_ms) {
    Warnings warnings;
    AddPolicies(status, now_ms, warnings);
    AddPlaces(status, warnings);
    AddPaths(status, now_ms, warnings);
    AddWatches(status["filenotify"], warnings);
    AddReports(status, warnings);
    const Json::Value& rsync = status["rsync"];
    if (Flag(rsync, "degraded")) {
        warnings.push_back(Warning(
            "rsync_degraded", "rsync " + Text(rsync, "version") + ": " + Text(rsync, "reason")));
    }
    const long long dropped = Number(status["counters"], "log_records_dropped");
    if (dropped > 0) {
        warnings.push_back(
            Warning("log_records_dropped", std::to_string(dropped) + " log records were dropped"));
    }
    return warnings;
}

std::string FormatWarnings(const Json::Value& status, long long now_ms) {
    std::string text;
    for (const StatusWarning& warning : WarningsOf(status, now_ms)) {
        text +=
            Coloured("warning: ", Colour::kYellow) + warning.text + "  [" + warning.code + "]\n";
    }
    return text.empty() ? "" : "\n" + text;
}

}  // namespace Ctl
