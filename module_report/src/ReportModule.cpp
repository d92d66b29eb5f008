// Owns the store, the alarm file, the queries and the two tasks, and the order in which they are
// created and destroyed, since they borrow from each other. Runs on the framework thread.

#include "ReportModule.h"

#include <framework/ConfigManager.h>
#include <framework/Engine.h>
#include <sdk/files/PathUtils.h>

#include <chrono>
#include <string>

#include "store/ReportLog.h"
#include "store/ReportSettings.h"

namespace Engine {
namespace {

constexpr const char* kReadQuery = "reports.read";
constexpr const char* kAckQuery = "reports.ack";
constexpr const char* kStatusQuery = "status.report";
constexpr const char* kFleetExporters = "fleet-";  // as the fleet module names its streams

std::int64_t EpochMs() {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
}

std::string AlarmPath() {
    return Framework::ConfigManager::GetInstance().GetLoggerConfig().directory + "/alarms.jsonl";
}

}  // namespace

ReportModule::ReportModule() : Framework::Module(kReportModuleName) {}

ReportModule::~ReportModule() = default;

bool ReportModule::Init() {
    const ReportSettings settings =
        ParseReportSettings(Framework::ConfigManager::GetInstance().Section("report"));
    store_ = std::make_unique<ReportStore>(
        SDK::PathUtils::GetInstallationPath() + "data/reports.db", settings, EpochMs);
    alarms_ = std::make_unique<AlarmLog>(AlarmPath(), settings.AlarmsRotateBytes(),
                                         settings.alarms_keep_files);
    queries_ = std::make_unique<ReportQueries>(*store_, *alarms_);
    store_->Open();
    // A host that has left its fleet has no exporter that could still acknowledge.
    if (Framework::ConfigManager::GetInstance().Section("fleet").empty()) {
        store_->ForgetExporters(kFleetExporters);
    }
    for (const char* id : {kCmdReportTask, kDataReportTask}) {
        tasks_.emplace_back(new ReportTask(id, *store_, *alarms_));
        tasks_.back()->duplicate();  // the reference that the framework takes
        RegisterTask(tasks_.back().get(), false);
    }
    RegisterQueries();
    return Framework::Module::Init();
}

void ReportModule::UnInit() {
    if (store_ == nullptr) return;
    store_->StopWaiting();
    UnregisterQueries();
    for (const auto& task : tasks_) UnRegisterTask(task->Id());
    tasks_.clear();
    queries_.reset();
    alarms_.reset();
    store_.reset();
    Framework::Module::UnInit();
}

void ReportModule::RegisterQueries() {
    Framework::QueryRegistry& registry = Framework::Engine::Instance().Queries();
    ReportQueries* const queries = queries_.get();
    registry.Register(kReadQuery,
                      [queries](const auto& request) { return queries->Read(request); });
    registry.Register(kAckQuery,
                      [queries](const auto& request) { return queries->Acknowledge(request); });
    registry.Register(kStatusQuery, [queries](const auto&) { return queries->Status(); });
}

void ReportModule::UnregisterQueries() {
    Framework::QueryRegistry& registry = Framework::Engine::Instance().Queries();
    for (const char* name : {kReadQuery, kAckQuery, kStatusQuery}) registry.Unregister(name);
}

}  // namespace Engine

extern "C" void* CreateModule() {
    try {
        return new Engine::ReportModule();  // owned by the framework
    } catch (...) {
        return nullptr;
    }
}
