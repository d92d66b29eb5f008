#pragma once

#include <framework/Module.h>

#include <string>

namespace Framework {
class Policy;
}

namespace Engine {

class BackUpServerTask;
class SentrelBackupTask;
class SentrelInotifyTask;

/// The web tamper protection as the framework sees it: takes policies and passwords, and hands its
/// three tasks to the framework when a policy switches their feature on. Owned by the framework;
/// framework thread only, and no state but the task objects, which live from Init to UnInit.
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
    void RegisterCallbacks();
    void CreateTasks();
    void RegisterQueries();
    void UnregisterQueries();

    SentrelInotifyTask* m_pInotifyTask = nullptr;
    SentrelBackupTask* m_pBackupTask = nullptr;
    BackUpServerTask* m_pBackUpServerTask = nullptr;
};

}  // namespace Engine

/// What the framework enters the module through: a new SentrelModule, which becomes its own.
extern "C" void* CreateModule();
