#define SDK_LOG_FILE "SentrelUtils.cpp"

#include "utils/ModuleReports.h"

#include <framework/Engine.h>
#include <framework/Message.h>
#include <framework/Task.h>
#include <json/value.h>
#include <module_utils/ModuleUtils.h>
#include <sdk/log/Log.h>
#include <sdk/text/JsonUtils.h>
#include <sdk/text/StrUtils.h>

#include "base/ModuleLogger.h"

namespace Engine {

void ModuleReports::SendStatus(const std::string& feature, const std::string& task,
                               const std::string& status) {
    Json::Value body(Json::objectValue);
    body["feature"] = feature;
    body["task"] = task;
    body["status"] = status;
    SendDataMessage("sentrel_status_1", SDK::JsonUtils::JsonToString(body));
}

void ModuleReports::SendAcceptance(unsigned int user, int process,
                                   const std::vector<std::string>& paths, std::size_t objects) {
    Json::Value body(Json::objectValue);
    body["feature"] = "sentrel_feature";
    body["action"] = "accept";
    body["user"] = user;
    body["process"] = process;
    body["objects"] = static_cast<Json::UInt64>(objects);
    body["paths"] = Json::Value(Json::arrayValue);
    for (const std::string& path : paths) body["paths"].append(path);
    SendDataMessage("sentrel_baseline_1", SDK::JsonUtils::JsonToString(body));
}

void ModuleReports::SendDeploy(const std::string& what, unsigned int user, int process,
                               const std::string& path, const std::string& reason,
                               const std::vector<std::string>& paths, unsigned int generation) {
    constexpr std::size_t kMostPaths = 100;
    Json::Value body(Json::objectValue);
    body["feature"] = "sentrel_feature";
    body["action"] = "deploy";
    body["outcome"] = what;
    body["user"] = user;
    body["process"] = process;
    body["path"] = path;
    body["reason"] = reason;
    body["generation"] = generation;
    body["objects"] = static_cast<Json::UInt64>(paths.size());
    body["paths"] = Json::Value(Json::arrayValue);
    for (std::size_t i = 0; i < paths.size() && i < kMostPaths; ++i) body["paths"].append(paths[i]);
    SendDataMessage("sentrel_deploy_1", SDK::JsonUtils::JsonToString(body));
}

void ModuleReports::SendRollback(const Rollback& rollback) {
    Json::Value body(Json::objectValue);
    body["feature"] = "sentrel_feature";
    body["action"] = "rollback";
    body["user"] = rollback.user;
    body["process"] = rollback.process;
    body["objects"] = static_cast<Json::UInt64>(rollback.objects);
    body["paths"].append(rollback.path);
    body["from_generation"] = rollback.from;
    body["generation"] = rollback.generation;
    SendDataMessage("sentrel_baseline_1", SDK::JsonUtils::JsonToString(body));
}

void ModuleReports::SendException(const std::string& feature, const std::string& exception) {
    static const std::string kReportTask = "cmd_comm_report_task";
    Framework::Task* task = Framework::Engine::Instance().FindTask(kReportTask);
    if (task == nullptr) return;
    const std::string body = SDK::StrUtils::Format("{\"feature\":\"%s\", \"exception\":\"%s\"}",
                                                   feature.c_str(), exception.c_str());
    auto* msg = new Framework::CmdMessage("feature_exception_1", body);
    const std::string msg_id = msg->GetMsgId();
    const int result = task->SendDirectMsg(kReportTask, msg);  // takes the message over
    SDK_LOG(ModuleLogger(), PRIO_INFORMATION,
            "send %s to cmd_comm_report_task, length=%lu, result=%d", msg_id,
            static_cast<unsigned long>(body.size()), result);
}

}  // namespace Engine
