#include "ctl/output/StatusWarnings.h"

#include <sdk/text/JsonUtils.h>

#include "ctl/output/JsonFields.h"
#include "ctl/output/Terminal.h"

namespace Ctl {

using SDK::JsonUtils;

namespace {

/// `word`: what "morvanectl explain" takes.
std::string Warning(const char* word, const std::string& text) {
    return Coloured("warning: ", Colour::kYellow) + text + "  [" + word + "]\n";
}

std::string PolicyWarnings(const Json::Value& status, long long now_ms) {
    std::string text;
    for (const Json::Value& policy : status["policies"]) {
        Json::Value rejection;
        if (!JsonUtils::GetSubobjectValue(policy, "last_rejection", rejection) ||
            Text(policy, "state") == "failed") {
            continue;
        }
        text += Warning("policy_refused", "policy of " + Text(policy, "feature") + " refused at " +
                                              When(Number(rejection, "at"), now_ms) + ": " +
                                              Text(rejection, "message"));
    }
    return text;
}

std::string PathWarnings(const Json::Value& status, long long now_ms) {
    std::string text;
    for (const Json::Value& path : status["protected_paths"]) {
        Json::Value open;
        if (JsonUtils::GetSubobjectValue(path, "open_objects", open)) {
            for (const Json::Value& example : open["examples"]) {
                text += Warning("open_objects", "not copied: " + Text(example, "path") + ": " +
                                                    Text(example, "reason"));
            }
        }
        const std::string failure = Text(path, "last_failure");
        const long long at = Number(path, "last_failure_at");
        const std::string when = at > 0 ? " at " + When(at, now_ms) : "";
        if (!failure.empty()) {
            text += Warning("last_failure",
                            Text(path, "path") + ", last failure" + when + ": " + failure);
        }
    }
    return text;
}

std::string WatchWarnings(const Json::Value& own) {
    if (!own.isObject()) return {};
    std::string text;
    const long long unwatched = Number(own, "unwatched_directories");
    if (unwatched > 0) {
        text += Warning("unwatched_directories", std::to_string(unwatched) +
                                                     " directories are not protected because they "
                                                     "cannot be watched; the agent tries again");
    }
    for (const Json::Value& example : own["unwatched_examples"]) {
        text += Warning("unwatched_directories",
                        "not watched: " + Text(example, "path") + ": " + Text(example, "reason"));
    }
    const std::string limit = Text(own, "queue_limit_problem");
    return limit.empty() ? text : text + Warning("queue_limit", limit);
}

std::string UnsafePlaces(const Json::Value& status) {
    std::string text;
    for (const Json::Value& place : status["unsafe_places"]) {
        text += Warning("unsafe_place", Text(place, "path") + " is not safe from other users: " +
                                            Text(place, "reason"));
    }
    return text;
}

std::string ReportWarnings(const Json::Value& status) {
    std::string text;
    const Json::Value& reports = status["reports"];
    if (reports.isObject() && !JsonUtils::GetBoolValue(reports, "working", true)) {
        text +=
            Warning("report_store", "the report store does not work: " + Text(reports, "error"));
    }
    const long long lost = Number(status["counters"], "alarms_lost");
    if (lost > 0) {
        text +=
            Warning("alarms_lost", Counted(lost, "alarm") + " could not be stored; see the log");
    }
    return text;
}

}  // namespace

std::string FormatWarnings(const Json::Value& status, long long now_ms) {
    std::string text = PolicyWarnings(status, now_ms) + UnsafePlaces(status) +
                       PathWarnings(status, now_ms) + WatchWarnings(status["filenotify"]) +
                       ReportWarnings(status);
    if (Flag(status["rsync"], "degraded")) {
        text += Warning("rsync_degraded", "rsync " + Text(status["rsync"], "version") + ": " +
                                              Text(status["rsync"], "reason"));
    }
    const long long dropped = Number(status["counters"], "log_records_dropped");
    if (dropped > 0)
        text +=
            Warning("log_records_dropped", std::to_string(dropped) + " log records were dropped");
    return text.empty() ? "" : "\n" + text;
}

}  // namespace Ctl
