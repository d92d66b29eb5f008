// Owns the three task objects, from Init to UnInit. It must not decide about policies
// (SentrelPolicyRefresh.cpp) nor run tasks: registering hands one reference to the framework, which
// gives it back when it has joined the task's thread. Framework thread.
#include "SentrelModule.h"

#include <framework/Callbacks.h>
#include <framework/Engine.h>
#include <sdk/files/PathUtils.h>
#include <sdk/log/Log.h>

#include <new>

#include "base/ModuleLogger.h"
#include "base/WorkClock.h"
#include "feature_backupserver/BackUpServerTask.h"
#include "feature_sentrel/SentrelBackupTask.h"
#include "feature_sentrel/SentrelInotifyTask.h"
#include "feature_sentrel/policy_check/PolicyCompletion.h"
#include "feature_sentrel/policy_check/SentrelPolicyCheck.h"
#include "feature_sentrel/schedule/ScheduleStatus.h"
#include "places/TrustedPlaces.h"
#include "status/BackUpServerStatus.h"
#include "status/SentrelStatus.h"
#include "status/WatchList.h"
#include "utils/SentrelUtils.h"

namespace Engine {

namespace {

constexpr const char* kStatusQuery = "status.sentrel";
constexpr const char* kExclusionsQuery = "exclusions.sentrel_inotify_task";
constexpr const char* kProtectionCheckQuery = "policy.check.sentrel_feature";
constexpr const char* kBackupServerCheckQuery = "policy.check.backupserver_feature";
constexpr const char* kCompletionQuery = "policy.complete.sentrel_feature";

template <typename TaskClass>
TaskClass* CreateTask(const std::string& what) {
    auto* task = new (std::nothrow) TaskClass();
    if (task == nullptr) {
        SDK_LOG(ModuleLogger(), PRIO_ERROR, "create %s task class failed.", what);
    } else {
        SDK_LOG(ModuleLogger(), PRIO_INFORMATION, "create %s task class success.", what);
    }
    return task;
}

template <typename TaskClass>
void DeleteTask(TaskClass*& task, const std::string& what) {
    if (task == nullptr) return;
    delete task;
    task = nullptr;
    SDK_LOG(ModuleLogger(), PRIO_INFORMATION, "delete %s task class.", what);
}

Json::Value AnswerStatus() {
    SentrelUtils* utils = SentrelUtils::GetInstance();
    Json::Value answer = SentrelStatus::Instance().ToJson(
        AskForWatches(),
        {utils->is_run, utils->local_backup_pending, utils->remote_backup_pending});
    answer["rsync"] = utils->Rsync().ToJson();
    answer["schedule"] = ScheduleStatus::Instance().ToJson(WorkClock::Now());
    answer["backup_server"] = BackUpServerStatus::Instance().ToJson(
        RsyncDaemon::FindOwn(SDK::PathUtils::GetInstallationPath()));
    answer["unsafe_places"] = TrustedPlaces::Instance().ToJson();
    return answer;
}

}  // namespace

SentrelModule::SentrelModule() : Framework::Module("sentrel_module") {}

SentrelModule::~SentrelModule() {
    delete m_pInotifyTask;
    delete m_pBackupTask;
    delete m_pBackUpServerTask;
}

bool SentrelModule::Init() {
    SentrelUtils::GetInstance()->Init();
    RsyncDaemon::DropForeignPidFile(SDK::PathUtils::GetInstallationPath());
    SentrelUtils::GetInstance()->Rsync().Reset();
    SentrelStatus::Instance().Reset();
    ScheduleStatus::Instance().Reset();
    BackUpServerStatus::Instance().Reset();
    TrustedPlaces::Instance().Judge({});
    RegisterCallbacks();
    CreateTasks();
    RegisterQueries();
    return Framework::Module::Init();
}

void SentrelModule::RegisterCallbacks() {
    using PolicyCallback = Framework::PolicyCallback<SentrelModule>;
    using TaskletCallback = Framework::TaskletCallback<SentrelModule>;
    RegisterPolicyCallback(
        "10001", new (std::nothrow) PolicyCallback(this, &SentrelModule::RefreshFeaturePolicy));
    SDK_LOG(ModuleLogger(), PRIO_INFORMATION, "register feature policy refresh callback.");
    RegisterTaskletCallback("sentrel_getpasswd_10001", new (std::nothrow) TaskletCallback(
                                                           this, &SentrelModule::GetPasswdServer));
    SDK_LOG(ModuleLogger(), PRIO_INFORMATION, "register rsync server passwd callback.");
    RegisterTaskletCallback("sentrel_getpasswd_10002", new (std::nothrow) TaskletCallback(
                                                           this, &SentrelModule::GetPasswdClient));
    SDK_LOG(ModuleLogger(), PRIO_INFORMATION, "register rsync client passwd callback.");
}

void SentrelModule::CreateTasks() {
    m_pInotifyTask = CreateTask<SentrelInotifyTask>("sentrel");
    m_pBackupTask = CreateTask<SentrelBackupTask>("backup");
    m_pBackUpServerTask = CreateTask<BackUpServerTask>("backup server");
}

void SentrelModule::RegisterQueries() {
    Framework::QueryRegistry& queries = Framework::Engine::Instance().Queries();
    queries.Register(kStatusQuery, [](const Json::Value&) { return AnswerStatus(); });
    queries.Register(kExclusionsQuery, [](const Json::Value& request) {
        return SentrelStatus::Instance().ExclusionsOf(request);
    });
    queries.Register(kProtectionCheckQuery, [](const Json::Value& request) {
        return SentrelPolicyCheck::Answer(request, SentrelPolicyCheck::CheckProtection,
                                          SentrelPolicyCheck::CheckProtectionPlaces);
    });
    queries.Register(kBackupServerCheckQuery, [](const Json::Value& request) {
        return SentrelPolicyCheck::Answer(request, SentrelPolicyCheck::CheckBackupServer,
                                          SentrelPolicyCheck::CheckBackupServerPlaces);
    });
    queries.Register(kCompletionQuery, AnswerCompletion);
}

void SentrelModule::UnregisterQueries() {
    Framework::QueryRegistry& queries = Framework::Engine::Instance().Queries();
    for (const char* query : {kStatusQuery, kExclusionsQuery, kProtectionCheckQuery,
                              kBackupServerCheckQuery, kCompletionQuery}) {
        queries.Unregister(query);
    }
}

void SentrelModule::UnInit() {
    UnregisterQueries();
    // This call takes off callbacks of either kind.
    UnRegisterPolicyCallback("sentrel_getpasswd_10002");
    SDK_LOG(ModuleLogger(), PRIO_INFORMATION, "unregister rsync client passwd callback.");
    UnRegisterPolicyCallback("sentrel_getpasswd_10001");
    SDK_LOG(ModuleLogger(), PRIO_INFORMATION, "unregister rsync server passwd callback.");
    UnRegisterPolicyCallback("10001");
    SDK_LOG(ModuleLogger(), PRIO_INFORMATION, "unregister feature policy refresh callback.");
    UnRegisterTask("sentrel_inotify_task");
    SDK_LOG(ModuleLogger(), PRIO_INFORMATION, "unregister sentrel task.");
    UnRegisterTask("sentrel_backup_task");
    SDK_LOG(ModuleLogger(), PRIO_INFORMATION, "unregister backup task.");
    UnRegisterTask("sentrel_backupserver_task");
    SDK_LOG(ModuleLogger(), PRIO_INFORMATION, "unregister backup server task.");
    DeleteTask(m_pInotifyTask, "sentrel");
    DeleteTask(m_pBackupTask, "backup");
    DeleteTask(m_pBackUpServerTask, "backup server");
    SentrelUtils::GetInstance()->Init();
    SentrelStatus::Instance().SetProtectionOff();
    BackUpServerStatus::Instance().SetOff();
    TrustedPlaces::Instance().Reset();
    Framework::Module::UnInit();
}

}  // namespace Engine

extern "C" void* CreateModule() {
    return new Engine::SentrelModule();
}
