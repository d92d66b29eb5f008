// Decides what a pushed policy does to the tasks. It must not keep whether a feature is on: the
// framework's registry of tasks is the only record. A policy object that was applied belongs to the
// framework's registry of feature policies; one that failed is deleted here. Framework thread, with
// the module's gate held alone but while the rsync daemon ends.
#define SDK_LOG_FILE "SentrelModule.cpp"

#include <framework/OutsideGate.h>
#include <json/value.h>
#include <sdk/log/Log.h>
#include <sdk/text/JsonUtils.h>

#include <filesystem>
#include <list>
#include <new>
#include <string>

#include "SentrelModule.h"
#include "base/ModuleLogger.h"
#include "feature_backupserver/BackUpServerPolicy.h"
#include "feature_backupserver/BackUpServerTask.h"
#include "feature_sentrel/SentrelBackupTask.h"
#include "feature_sentrel/SentrelInotifyTask.h"
#include "feature_sentrel/SentrelPolicy.h"
#include "feature_sentrel/schedule/ScheduleStatus.h"
#include "places/TrustedPlaces.h"
#include "status/BackUpServerStatus.h"
#include "status/SentrelStatus.h"
#include "utils/SentrelUtils.h"

namespace Engine {

namespace {

constexpr const char* kParseFailed = "parse feature policy failed.";
constexpr const char* kApplyFailed = "apply feature resource failed.";
constexpr Framework::TaskCondition::Condition kStallLimit = {Framework::TaskCondition::kStallLimit,
                                                             120};

void ReportParseFailure(Framework::Module& module, const std::string& feature) {
    SDK_LOG(ModuleLogger(), PRIO_ERROR, "parse feature policy failed [%s].", feature);
    SentrelUtils::GetInstance()->SendExceptionMsg(feature, kParseFailed);
    module.RejectPolicy(kParseFailed);
}

void ReportApplyFailure(Framework::Module& module, const std::string& feature) {
    SDK_LOG(ModuleLogger(), PRIO_ERROR, "apply feature resource failed [%s].", feature);
    SentrelUtils::GetInstance()->SendExceptionMsg(feature, kApplyFailed);
    module.RejectPolicy(kApplyFailed);
}

/// False, logged and reported, when the document is no JSON: the tasks then stay as they are.
bool ReadDocument(Framework::Module& module, const std::string& feature,
                  const std::string& policyJson, bool& enabled) {
    Json::Value root;
    if (SDK::JsonUtils::ParseJsonStr(policyJson.c_str(), policyJson.size(), root) != 0) {
        ReportParseFailure(module, feature);
        return false;
    }
    enabled = SDK::JsonUtils::GetBoolValue(root, "enabled", false);
    return true;
}

/// The end of the daemon takes seconds, which the other tasks need not wait.
void UnRegisterBackupServerTask(SentrelModule& module) {
    {
        const Framework::OutsideGate outside;
        module.UnRegisterTask("sentrel_backupserver_task");
    }
    SDK_LOG(ModuleLogger(), PRIO_INFORMATION, "unregister backup server task.");
}

/// A link that was configured with a trailing "/" has been taken for the directory that it leads
/// to. That directory is what is protected: nothing is watched or restored through a link.
void ResolveRoots(std::list<SentrelDirRule>& rules) {
    for (SentrelDirRule& rule : rules) {
        if (rule.is_file || rule.real_path != rule.filepath) continue;
        const std::string name = rule.filepath.substr(0, rule.filepath.find_last_not_of('/') + 1);
        std::error_code error;
        if (!std::filesystem::is_symlink(name, error)) continue;
        const std::string target = std::filesystem::canonical(name, error).string();
        if (!error) rule.real_path = target == "/" ? target : target + "/";
    }
}

void LimitStalls(Framework::Task& task) {
    task.SetTaskCondition(kStallLimit);
    task.SetConditionInForce(true);
}

}  // namespace

int SentrelModule::RefreshFeaturePolicy(const std::string& featureName,
                                        const std::string& policyJson, Framework::Policy*& policy) {
    int result = 0;
    if (featureName == "sentrel_feature") {
        result = RefreshFeaturePolicyInotify(featureName, policyJson);
    } else if (featureName == "backupserver_feature") {
        result = RefreshFeaturePolicyBackUpServer(featureName, policyJson);
    }
    if (policy != nullptr) policy->SetHandled(true);
    return result;
}

int SentrelModule::RefreshFeaturePolicyInotify(const std::string& featureName,
                                               const std::string& policyJson) {
    bool enabled = false;
    if (!ReadDocument(*this, featureName, policyJson, enabled)) return 0;
    if (!enabled) {
        RefreshFeaturePolicyInotifyFailed(nullptr);
        SDK_LOG(ModuleLogger(), PRIO_INFORMATION, "disable feature [%s].", featureName);
        return 0;
    }
    auto* fp = new (std::nothrow) SentrelFeaturePolicy(featureName);
    if (fp == nullptr) {
        RefreshFeaturePolicyInotifyFailed(nullptr);
        ReportApplyFailure(*this, featureName);
        return 0;
    }
    if (!fp->Parse(policyJson)) {
        ReportParseFailure(*this, featureName);
        RefreshFeaturePolicyInotifyFailed(fp);
        return 0;
    }
    SentrelUtils* utils = SentrelUtils::GetInstance();
    ResolveRoots(utils->dir_rules);
    ScheduleStatus::Instance().Publish(WorkSchedule::OfSettings(), utils->distime_enable);
    TrustedPlaces::Instance().Judge(utils->dir_rules);
    if (utils->dir_rules.empty()) {
        SDK_LOG(ModuleLogger(), PRIO_INFORMATION, "rule list is empty, disable feature [%s].",
                featureName);
        RefreshFeaturePolicyInotifyFailed(fp);
        return 0;
    }
    utils->SetInotifyMaxUserWatches();
    ProcSentrelRegisterTask();
    utils->SendStatusMsg("sentrel_feature", "SentrelInotifyTask", "protect");
    return 1;
}

int SentrelModule::RefreshFeaturePolicyBackUpServer(const std::string& featureName,
                                                    const std::string& policyJson) {
    bool enabled = false;
    if (!ReadDocument(*this, featureName, policyJson, enabled)) return 0;
    if (!enabled) {
        RefreshFeaturePolicyBackUpServer(nullptr);
        SDK_LOG(ModuleLogger(), PRIO_INFORMATION, "disable feature [%s].", featureName);
        return 0;
    }
    auto* fp = new (std::nothrow) BackUpServerPolicy(featureName);
    if (fp == nullptr) {
        ReportApplyFailure(*this, featureName);
        RefreshFeaturePolicyBackUpServer(nullptr);
        return 0;
    }
    if (!fp->Parse(policyJson)) {
        ReportParseFailure(*this, featureName);
        RefreshFeaturePolicyBackUpServer(fp);
        return 0;
    }
    UnRegisterBackupServerTask(*this);
    const SentrelUtils* utils = SentrelUtils::GetInstance();
    BackUpServerStatus::Instance().SetOn(utils->backupserver_ip, utils->backupserver_port,
                                         utils->backupserver_path);
    LimitStalls(*m_pBackUpServerTask);
    m_pBackUpServerTask->duplicate();
    RegisterTask(m_pBackUpServerTask, false);
    SDK_LOG(ModuleLogger(), PRIO_INFORMATION, "register backup server task.");
    return 1;
}

void SentrelModule::ProcSentrelRegisterTask() {
    const SentrelUtils* utils = SentrelUtils::GetInstance();
    UnRegisterTask("sentrel_inotify_task");
    SDK_LOG(ModuleLogger(), PRIO_INFORMATION, "unregister sentrel task.");
    SentrelStatus::Instance().SetProtectionOn(utils->monitor_only, utils->backup_type,
                                              utils->dir_rules);
    m_pInotifyTask->duplicate();
    RegisterTask(m_pInotifyTask, false);
    SDK_LOG(ModuleLogger(), PRIO_INFORMATION, "register sentrel task.");
    UnRegisterTask("sentrel_backup_task");
    SDK_LOG(ModuleLogger(), PRIO_INFORMATION, "unregister backup task.");
    LimitStalls(*m_pBackupTask);
    m_pBackupTask->duplicate();
    RegisterTask(m_pBackupTask, false);
    SDK_LOG(ModuleLogger(), PRIO_INFORMATION, "register backup task.");
}

void SentrelModule::RefreshFeaturePolicyInotifyFailed(Framework::Policy* policy) {
    UnRegisterTask("sentrel_inotify_task");
    SDK_LOG(ModuleLogger(), PRIO_INFORMATION, "unregister sentrel task.");
    UnRegisterTask("sentrel_backup_task");
    SDK_LOG(ModuleLogger(), PRIO_INFORMATION, "unregister backup task.");
    SentrelStatus::Instance().SetProtectionOff();
    delete policy;
}

void SentrelModule::RefreshFeaturePolicyBackUpServer(Framework::Policy* policy) {
    UnRegisterBackupServerTask(*this);
    BackUpServerStatus::Instance().SetOff();
    delete policy;
}

}  // namespace Engine
