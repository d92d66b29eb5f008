// Owns the start time and the list of failed modules. Must not know the modules' members: they
// answer queries. Runs on the control API's threads.
#include "control/status/StatusDocument.h"

#include <Poco/NumberParser.h>
#include <framework/ConfigManager.h>
#include <sdk/files/FileUtils.h>
#include <sdk/files/PathUtils.h>
#include <sdk/log/LoggerUtils.h>
#include <sdk/text/StrUtils.h>
#include <sdk/time/TimeUtils.h>
#include <unistd.h>

#include "control/status/HealthSummary.h"

namespace Agent {

namespace {

constexpr char kWatchLimit[] = "/proc/sys/fs/inotify/max_user_watches";
constexpr long kMostDigits = 32;

/// Null when the kernel does not tell.
Json::Value WatchLimit() {
    std::string text;
    Poco::Int64 limit = 0;
    if (SDK::FileUtils::ReadFile(kWatchLimit, text, kMostDigits) != 0) return {};
    SDK::StrUtils::Trim(text);
    if (!Poco::NumberParser::tryParse64(text, limit)) return {};
    return Json::Value(Json::Int64{limit});
}

}  // namespace

void MergeStatus(const Json::Value& from, Json::Value& into) {
    if (!from.isObject() || !into.isObject()) return;
    for (const std::string& name : from.getMemberNames()) {
        if (!into.isMember(name)) {
            into[name] = from[name];
        } else {
            MergeStatus(from[name], into[name]);
        }
    }
}

StatusDocument::StatusDocument(Framework::Engine& engine, const PolicyService& policies)
    : engine_(engine), policies_(policies), started_(SDK::TimeUtils::GetCurrentTimestampS()) {}

Json::Value StatusDocument::Build() {
    Json::Value status;
    status["agent_id"] = Framework::ConfigManager::GetInstance().GetAgentId();
    status["version"] = SENTREL_VERSION;
    status["pid"] = static_cast<Json::Int64>(::getpid());
    status["started"] = static_cast<Json::Int64>(started_);
    status["installation_path"] = SDK::PathUtils::GetInstallationPath();
    status["modules"] = Modules();
    status["tasks"] = Tasks();
    status["policies"] = policies_.List();
    status["watch_limit"] = WatchLimit();
    status["counters"]["log_records_dropped"] =
        static_cast<Json::UInt64>(SDK::LoggerUtils::GetInstance()->DroppedRecords());
    HealthSummary health;
    for (const std::string& name : engine_.Queries().Names("status.")) {
        Json::Value answer;
        if (engine_.Queries().Ask(name, Json::Value(Json::objectValue), answer)) {
            if (answer.isObject()) health.Add(answer["health"]);
            MergeStatus(answer, status);
        }
    }
    health.AddFromDocument(status);
    status["health"] = health.ToJson();
    return status;
}

Json::Value StatusDocument::Modules() const {
    Json::Value modules(Json::arrayValue);
    for (const std::string& name : engine_.ModuleNames()) {
        Json::Value module;
        module["name"] = name;
        module["state"] = "running";
        modules.append(module);
    }
    for (const FailedModule& failed : failed_modules_) {
        Json::Value module;
        module["name"] = failed.name;
        module["state"] = "failed";
        module["error"] = failed.error;
        modules.append(module);
    }
    return modules;
}

Json::Value StatusDocument::Tasks() const {
    Json::Value tasks(Json::arrayValue);
    for (const Framework::TaskStatus& status : engine_.TaskStatuses()) {
        Json::Value task;
        task["id"] = status.id;
        task["feature"] = status.feature;
        task["module"] = status.module;
        task["state"] = status.state;
        task["passes"] = static_cast<Json::UInt64>(status.passes);
        task["last_pass_ms"] = status.last_pass_ms;
        task["queue_length"] = static_cast<Json::UInt64>(status.queue_length);
        task["init_failed"] = status.init_failed;
        tasks.append(task);
    }
    return tasks;
}

}  // namespace Agent
