#pragma once

#include <framework/Module.h>
#include <json/value.h>

#include <chrono>
#include <optional>
#include <string>

#include "state/ModuleState.h"

namespace Framework {
class FeaturePolicy;
class Policy;
class Task;
}  // namespace Framework

namespace Engine {

class BackUpServerTask;
class SentrelBackupTask;
class SentrelInotifyTask;

/// The web tamper protection as the framework sees it: takes policies and passwords, and registers
/// its three tasks when a policy switches their feature on. Owned by the framework; framework
/// thread only. It owns the task objects, from Init to UnInit, and the state that they share.
class SentrelModule : public Framework::Module {
  public:
    SentrelModule();
    ~SentrelModule() override;
    SentrelModule(const SentrelModule&) = delete;
    SentrelModule& operator=(const SentrelModule&) = delete;

    bool Init() override;
    void UnInit() override;

    // Policies (SentrelPolicyRefresh.cpp). Non-zero: the feature is on.

    /// The policy callback "10001"; an unknown feature is ignored.
    int RefreshFeaturePolicy(const std::string& featureName, const std::string& policyJson,
                             Framework::Policy*& policy);
    int RefreshFeaturePolicyInotify(const std::string& featureName, const std::string& policyJson);
    int RefreshFeaturePolicyBackUpServer(const std::string& featureName,
                                         const std::string& policyJson);
    /// Switch the feature off and delete `policy`, which may be null.
    void RefreshFeaturePolicyInotifyFailed(Framework::Policy* policy);
    void RefreshFeaturePolicyBackUpServer(Framework::Policy* policy);
    void ProcSentrelRegisterTask();

    // Passwords (SentrelCredentials.cpp). `request` is {"passwd":"..."}; 0 when written, or when
    // there was no password in it; -1 when it is no JSON; the writer's code when writing failed.

    int GetPasswdServer(const std::string& request);
    int GetPasswdClient(const std::string& request);

  private:
    Json::Value AnswerStatus();
    Json::Value AnswerRequest(const Json::Value& request);
    Json::Value AnswerKey(const Json::Value& request);
    void CheckKey(const Json::Value& request, Json::Value& answer);

    // Deploys and pauses (SentrelOperations.cpp).
    /// The tasks look at what operators want now.
    void WakeTasks();
    Json::Value AnswerDeploy(const Json::Value& request);
    Json::Value AnswerPause(const Json::Value& request);
    Json::Value BeginDeploy(const Json::Value& request);
    /// The rule that protects the percent-encoded path of the request.
    static std::optional<SentrelDirRule> RuleOf(const SentrelStatus& status,
                                                const Json::Value& request);

    // The shield (SentrelShield.cpp).
    std::string WhyNotShielded(const SentrelDirRule& rule) const;
    Json::Value ShieldRules() const;
    void PublishShield(bool must_wait);
    void SuspendShield(std::chrono::milliseconds time);
    Json::Value TickShield(const Json::Value& sentry);
    Json::Value TakeShieldEvent(const Json::Value& event);
    Json::Value ListShield() const;
    Json::Value AnswerShield(const Json::Value& request);

    bool IsSwitchedOn(const std::string& feature, const std::string& policyJson,
                      void (SentrelModule::*switch_off)(Framework::Policy*));
    bool IsParsed(Framework::FeaturePolicy* policy, const std::string& feature,
                  const std::string& policyJson,
                  void (SentrelModule::*switch_off)(Framework::Policy*));
    void RegisterNamed(Framework::Task& task, const std::string& what);
    void UnRegisterNamed(const std::string& task_id, const std::string& what);
    void UnRegisterBackUpServerTask();
    void RegisterCallbacks();
    void CreateTasks();
    void RegisterQueries();
    void UnregisterQueries();

    SentrelInotifyTask* m_pInotifyTask = nullptr;
    SentrelBackupTask* m_pBackupTask = nullptr;
    BackUpServerTask* m_pBackUpServerTask = nullptr;
    ModuleState state_;
};

}  // namespace Engine

/// What the framework enters the module through: a new SentrelModule, which becomes its own.
extern "C" void* CreateModule();
