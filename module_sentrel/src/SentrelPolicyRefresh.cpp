// Decides what a policy does to the tasks. It must not keep whether a feature is on: the
// framework's registry of tasks is the only record. An applied policy object belongs to the
// framework's registry of feature policies; a failed one is deleted here. Framework thread, with
// the module's gate held alone except while the rsync daemon ends.
#define SDK_LOG_FILE "SentrelModule.cpp"

#include <framework/Engine.h>
#include <framework/OutsideGate.h>
#include <json/value.h>
#include <sdk/log/Log.h>
#include <sdk/text/JsonUtils.h>

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
#include "feature_sentrel/reconcile/StartCheck.h"
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

/// The first steps of either feature: reads the document, and switches the feature off when the
/// document says so. True when a policy is to be parsed.
bool SentrelModule::IsSwitchedOn(const std::string& feature, const std::string& policyJson,
                                 void (SentrelModule::*switch_off)(Framework::Policy*)) {
    bool enabled = false;
    if (!ReadDocument(*this, feature, policyJson, enabled)) return false;
    if (enabled) return true;
    (this->*switch_off)(nullptr);
    SDK_LOG(ModuleLogger(), PRIO_INFORMATION, "disable feature [%s].", feature);
    return false;
}

/// On false the feature is off, `policy` deleted, and the failure reported.
bool SentrelModule::IsParsed(Framework::FeaturePolicy* policy, const std::string& feature,
                             const std::string& policyJson,
                             void (SentrelModule::*switch_off)(Framework::Policy*)) {
    if (policy->Parse(policyJson)) return true;
    ReportParseFailure(*this, feature);
    (this->*switch_off)(policy);
    return false;
}

int SentrelModule::RefreshFeaturePolicyInotify(const std::string& featureName,
                                               const std::string& policyJson) {
    constexpr auto kSwitchOff = &SentrelModule::RefreshFeaturePolicyInotifyFailed;
    if (!IsSwitchedOn(featureName, policyJson, kSwitchOff)) return 0;
    auto* fp = new (std::nothrow) SentrelFeaturePolicy(featureName, state_.progress);
    if (fp == nullptr) {
        RefreshFeaturePolicyInotifyFailed(nullptr);
        ReportApplyFailure(*this, featureName);
        return 0;
    }
    if (!IsParsed(fp, featureName, policyJson, kSwitchOff)) return 0;
    SentrelUtils* utils = SentrelUtils::GetInstance();
    // Nothing is watched or restored through a link.
    ReleaseLinks::Resolve(utils->dir_rules);
    state_.releases.Clear();
    state_.schedule.Publish(WorkSchedule::OfSettings(), utils->distime_enable);
    state_.places.Judge(utils->dir_rules);
    if (utils->dir_rules.empty()) {
        SDK_LOG(ModuleLogger(), PRIO_INFORMATION, "rule list is empty, disable feature [%s].",
                featureName);
        RefreshFeaturePolicyInotifyFailed(fp);
        return 0;
    }
    utils->SetInotifyMaxUserWatches();
    const bool is_kept =
        Framework::Engine::Instance().OriginOfPolicy() == Framework::PolicyOrigin::kKept;
    state_.baselines.ForgetKeys();
    GoOnFromBaselines(state_, utils->dir_rules,
                      is_kept ? CheckSettings::Read().at_start : CheckAction::kAccept,
                      is_kept ? "start of the agent" : "policy applied",
                      is_kept ? nullptr : state_.baselines.Lent().Take());
    ProcSentrelRegisterTask();
    utils->SendStatusMsg("sentrel_feature", "SentrelInotifyTask", "protect");
    return 1;
}

int SentrelModule::RefreshFeaturePolicyBackUpServer(const std::string& featureName,
                                                    const std::string& policyJson) {
    constexpr void (SentrelModule::*kSwitchOff)(Framework::Policy*) =
        &SentrelModule::RefreshFeaturePolicyBackUpServer;
    if (!IsSwitchedOn(featureName, policyJson, kSwitchOff)) return 0;
    auto* fp = new (std::nothrow) BackUpServerPolicy(featureName);
    if (fp == nullptr) {
        ReportApplyFailure(*this, featureName);
        RefreshFeaturePolicyBackUpServer(nullptr);
        return 0;
    }
    if (!IsParsed(fp, featureName, policyJson, kSwitchOff)) return 0;
    UnRegisterBackUpServerTask();
    const SentrelUtils* utils = SentrelUtils::GetInstance();
    state_.backup_server.SetOn(utils->backupserver_ip, utils->backupserver_port,
                               utils->backupserver_path);
    LimitStalls(*m_pBackUpServerTask);
    RegisterNamed(*m_pBackUpServerTask, "backup server");
    return 1;
}

void SentrelModule::ProcSentrelRegisterTask() {
    const SentrelUtils* utils = SentrelUtils::GetInstance();
    UnRegisterNamed("sentrel_inotify_task", "sentrel");
    state_.status.SetProtectionOn(utils->monitor_only, utils->backup_type, utils->dir_rules);
    RegisterNamed(*m_pInotifyTask, "sentrel");
    UnRegisterNamed("sentrel_backup_task", "backup");
    LimitStalls(*m_pBackupTask);
    RegisterNamed(*m_pBackupTask, "backup");
}

void SentrelModule::RefreshFeaturePolicyInotifyFailed(Framework::Policy* policy) {
    state_.baselines.ForgetKeys();
    UnRegisterNamed("sentrel_inotify_task", "sentrel");
    UnRegisterNamed("sentrel_backup_task", "backup");
    state_.status.SetProtectionOff();
    delete policy;
}

void SentrelModule::RefreshFeaturePolicyBackUpServer(Framework::Policy* policy) {
    UnRegisterBackUpServerTask();
    state_.backup_server.SetOff();
    delete policy;
}

void SentrelModule::RegisterNamed(Framework::Task& task, const std::string& what) {
    task.duplicate();
    RegisterTask(&task, false);
    SDK_LOG(ModuleLogger(), PRIO_INFORMATION, "register %s task.", what);
}

void SentrelModule::UnRegisterNamed(const std::string& task_id, const std::string& what) {
    UnRegisterTask(task_id);
    SDK_LOG(ModuleLogger(), PRIO_INFORMATION, "unregister %s task.", what);
}

/// The daemon takes seconds to end; the other tasks need not wait for it.
void SentrelModule::UnRegisterBackUpServerTask() {
    {
        const Framework::OutsideGate outside;
        UnRegisterTask("sentrel_backupserver_task");
    }
    SDK_LOG(ModuleLogger(), PRIO_INFORMATION, "unregister backup server task.");
}

}  // namespace Engine
