// Owns the three task objects, from Init to UnInit, and the state that they share. It must not
// decide about policies (SentrelPolicyRefresh.cpp) nor run tasks: registering hands one reference
// to the framework, which gives it back when it has joined the task's thread. Framework thread; the
// queries run on any thread.
#include "SentrelModule.h"

#include <framework/Callbacks.h>
#include <framework/Engine.h>
#include <framework/RunSoon.h>
#include <sdk/files/PathUtils.h>
#include <sdk/log/Log.h>
#include <sdk/text/JsonUtils.h>

#include <new>

#include "base/ModuleLogger.h"
#include "base/WorkClock.h"
#include "feature_backupserver/BackUpServerTask.h"
#include "feature_sentrel/SentrelBackupTask.h"
#include "feature_sentrel/SentrelInotifyTask.h"
#include "feature_sentrel/policy_check/PolicyCompletion.h"
#include "feature_sentrel/policy_check/SentrelPolicyCheck.h"
#include "feature_sentrel/reconcile/StartCheck.h"
#include "status/ProtectionHealth.h"
#include "status/WatchList.h"
#include "utils/SentrelUtils.h"

namespace Engine {

using SDK::JsonUtils;

namespace {

constexpr const char* kStatusQuery = "status.sentrel";
constexpr const char* kExclusionsQuery = "exclusions.sentrel_inotify_task";
constexpr const char* kProtectionCheckQuery = "policy.check.sentrel_feature";
constexpr const char* kBackUpServerCheckQuery = "policy.check.backupserver_feature";
constexpr const char* kRequestQuery = "baseline.request";
constexpr const char* kKeyQuery = "baseline.key";
constexpr const char* kProgressQuery = "baseline.progress";
constexpr const char* kDeployQuery = "deploy";
constexpr const char* kPauseQuery = "pause";
constexpr const char* kShieldQuery = "shield";
constexpr const char* kShieldTickQuery = "sentry.tick.shield";
constexpr const char* kWhoTickQuery = "sentry.tick.who";
constexpr const char* kShieldHealedQuery = "shield.healed";
constexpr const char* kShieldTroubleQuery = "shield.trouble";
// Until then a decision has begun, and no state is approved before it has ended.
constexpr std::chrono::seconds kDecisionBegins{2};
constexpr const char* kCompletionQuery = "policy.complete.sentrel_feature";

std::string Unsigned(const std::string& problem) {
    return "Nothing can be approved, because " + problem +
           ". If the private key is kept elsewhere, name its file with --key.";
}

template <typename TaskClass>
TaskClass* CreateTask(ModuleState& state, const std::string& what) {
    auto* task = new (std::nothrow) TaskClass(state);
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

}  // namespace

SentrelModule::SentrelModule() : Framework::Module("sentrel_module") {}

SentrelModule::~SentrelModule() {
    delete m_pInotifyTask;
    delete m_pBackupTask;
    delete m_pBackUpServerTask;
}

bool SentrelModule::Init() {
    state_.progress.Restart();
    SentrelUtils::GetInstance()->Init();
    RsyncDaemon::DropForeignPidFile(SDK::PathUtils::GetInstallationPath());
    SentrelUtils::GetInstance()->Rsync().Reset();
    state_.status.Reset();
    state_.schedule.Reset();
    state_.baselines.Reset(SDK::PathUtils::GetInstallationPath() + "data/baseline",
                           CheckSettings::Read().generations);
    state_.backup_server.Reset();
    state_.deploys.Load();
    state_.pauses.Load();
    state_.shield.Load();
    state_.places.Judge({});
    RegisterCallbacks();
    CreateTasks();
    RegisterQueries();
    return Framework::Module::Init();
}

Json::Value SentrelModule::AnswerStatus() {
    SentrelUtils* utils = SentrelUtils::GetInstance();
    Json::Value answer = state_.status.ToJson(
        AskForWatches(),
        {utils->is_run, utils->local_backup_pending, utils->remote_backup_pending});
    for (Json::Value& path : answer["protected_paths"]) {
        SentrelDirRule rule;
        rule.real_path = path["path"].asString();
        rule.backup_path = path["backup_path"].asString();
        path["baseline"] = state_.baselines.ToJson(rule.real_path, rule.backup_path);
        path["backup_complete"] = state_.progress.IsComplete(rule);
        path["held"] = static_cast<Json::UInt64>(state_.progress.HeldCount(rule));
    }
    answer["rsync"] = utils->Rsync().ToJson();
    answer["schedule"] = state_.schedule.ToJson(WorkClock::Now());
    answer["backup_server"] =
        state_.backup_server.ToJson(RsyncDaemon::FindOwn(SDK::PathUtils::GetInstallationPath()));
    answer["unsafe_places"] = state_.places.ToJson();
    answer["deploys"] = state_.deploys.ToJson();
    answer["pauses"] = state_.pauses.ToJson();
    answer["health"] = ProtectionHealth(answer);
    return answer;
}

Json::Value SentrelModule::AnswerRequest(const Json::Value& request) {
    Framework::Engine& engine = Framework::Engine::Instance();
    const bool is_on = engine.FindTask("sentrel_inotify_task") != nullptr;
    Json::Value answer(Json::objectValue);
    if (!is_on || !SentrelUtils::GetInstance()->is_run) {
        answer["error"] =
            is_on ? "The protection pauses by its schedule." : "The protection is off.";
        return answer;
    }
    const bool approves =
        request["action"] != "restore" && !JsonUtils::GetBoolValue(request, "dry_run", false);
    const std::string problem = approves ? state_.baselines.WhyUnsigned() : "";
    if (problem.empty()) {
        if (approves) SuspendShield(kDecisionBegins);
        answer =
            state_.requests.Submit(request, approves ? state_.baselines.Lent().Take() : nullptr);
        WakeTasks();
        return answer;
    }
    answer["error"] = Unsigned(problem);
    return answer;
}

void SentrelModule::WakeTasks() {
    if (m_pBackupTask != nullptr) Framework::RunSoon(*m_pBackupTask);
    if (m_pInotifyTask != nullptr) Framework::RunSoon(*m_pInotifyTask);
}

/// {} or {"error"}.
Json::Value SentrelModule::AnswerKey(const Json::Value& request) {
    Json::Value answer(Json::objectValue);
    const std::string problem =
        state_.baselines.Lend(JsonUtils::GetStringValue(request, "key", ""));
    if (!problem.empty()) answer["error"] = "The key is not taken: " + problem + ".";
    return answer;
}

/// What the policy check cannot tell: a policy that is applied approves the present state.
void SentrelModule::CheckKey(const Json::Value& request, Json::Value& answer) {
    Json::Value policy;
    const std::string text = JsonUtils::GetStringValue(request, "text", "");
    if (!JsonUtils::GetBoolValue(request, "to_apply", false) ||
        JsonUtils::ParseJsonStr(text.data(), text.size(), policy) != 0 ||
        !JsonUtils::GetBoolValue(policy, "enabled", false)) {
        return;
    }
    const std::string problem = state_.baselines.WhyUnsigned();
    if (problem.empty()) return;
    Json::Value error(Json::objectValue);
    error["pointer"] = "";
    error["message"] = Unsigned(problem);
    answer["errors"].append(error);
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
    m_pInotifyTask = CreateTask<SentrelInotifyTask>(state_, "sentrel");
    m_pBackupTask = CreateTask<SentrelBackupTask>(state_, "backup");
    m_pBackUpServerTask = CreateTask<BackUpServerTask>(state_, "backup server");
}

void SentrelModule::RegisterQueries() {
    Framework::QueryRegistry& queries = Framework::Engine::Instance().Queries();
    queries.Register(kStatusQuery, [this](const Json::Value&) { return AnswerStatus(); });
    queries.Register(kExclusionsQuery, [this](const Json::Value& request) {
        return state_.status.ExclusionsOf(request);
    });
    queries.Register(kProtectionCheckQuery, [this](const Json::Value& request) {
        const auto check = [this](const std::string& text) {
            return SentrelPolicyCheck::CheckProtection(text, state_.schedule.Get());
        };
        Json::Value answer =
            SentrelPolicyCheck::Answer(request, check, SentrelPolicyCheck::CheckProtectionPlaces);
        CheckKey(request, answer);
        return answer;
    });
    queries.Register(kBackUpServerCheckQuery, [](const Json::Value& request) {
        return SentrelPolicyCheck::Answer(request, SentrelPolicyCheck::CheckBackUpServer,
                                          SentrelPolicyCheck::CheckBackUpServerPlaces);
    });
    queries.Register(kCompletionQuery, AnswerCompletion);
    queries.Register(kRequestQuery,
                     [this](const Json::Value& request) { return AnswerRequest(request); });
    queries.Register(kKeyQuery, [this](const Json::Value& request) { return AnswerKey(request); });
    queries.Register(kProgressQuery, [this](const Json::Value& request) {
        return state_.requests.Progress(request);
    });
    queries.Register(kDeployQuery,
                     [this](const Json::Value& request) { return AnswerDeploy(request); });
    queries.Register(kPauseQuery,
                     [this](const Json::Value& request) { return AnswerPause(request); });
    queries.Register(kShieldQuery,
                     [this](const Json::Value& request) { return AnswerShield(request); });
    queries.Register(kShieldTickQuery,
                     [this](const Json::Value& sentry) { return TickShield(sentry); });
    queries.Register(kWhoTickQuery, [this](const Json::Value& sentry) {
        if (m_pInotifyTask != nullptr) m_pInotifyTask->TickSentry(sentry);
        return Json::Value(Json::objectValue);
    });
    for (const char* event : {kShieldHealedQuery, kShieldTroubleQuery}) {
        queries.Register(event, [this](const Json::Value& told) { return TakeShieldEvent(told); });
    }
}

void SentrelModule::UnregisterQueries() {
    Framework::QueryRegistry& queries = Framework::Engine::Instance().Queries();
    for (const char* query :
         {kStatusQuery, kExclusionsQuery, kProtectionCheckQuery, kBackUpServerCheckQuery,
          kCompletionQuery, kRequestQuery, kKeyQuery, kProgressQuery, kDeployQuery, kPauseQuery,
          kShieldQuery, kShieldTickQuery, kWhoTickQuery, kShieldHealedQuery, kShieldTroubleQuery}) {
        queries.Unregister(query);
    }
}

void SentrelModule::UnInit() {
    UnregisterQueries();
    // This call removes callbacks of either kind.
    UnRegisterPolicyCallback("sentrel_getpasswd_10002");
    SDK_LOG(ModuleLogger(), PRIO_INFORMATION, "unregister rsync client passwd callback.");
    UnRegisterPolicyCallback("sentrel_getpasswd_10001");
    SDK_LOG(ModuleLogger(), PRIO_INFORMATION, "unregister rsync server passwd callback.");
    UnRegisterPolicyCallback("10001");
    SDK_LOG(ModuleLogger(), PRIO_INFORMATION, "unregister feature policy refresh callback.");
    UnRegisterNamed("sentrel_inotify_task", "sentrel");
    UnRegisterNamed("sentrel_backup_task", "backup");
    UnRegisterNamed("sentrel_backupserver_task", "backup server");
    DeleteTask(m_pInotifyTask, "sentrel");
    DeleteTask(m_pBackupTask, "backup");
    DeleteTask(m_pBackUpServerTask, "backup server");
    state_.progress.Restart();
    SentrelUtils::GetInstance()->Init();
    state_.status.SetProtectionOff();
    state_.backup_server.SetOff();
    state_.places.Reset();
    Framework::Module::UnInit();
}

}  // namespace Engine

extern "C" void* CreateModule() {
    return new Engine::SentrelModule();
}
