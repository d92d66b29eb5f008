// Owns: the task, together with the framework. Must not own: the task's parts (FileNotifyTask).
// Threads: the framework's; queries are answered on any.
// Ownership passes: Init hands the descriptor to the task.

#include "FileNotifyModule.h"

#include <framework/ConfigManager.h>
#include <framework/Engine.h>
#include <sdk/log/Log.h>
#include <sdk/log/LoggerUtils.h>

#include <new>
#include <string>
#include <utility>

namespace Engine {

namespace {

constexpr const char* kWatchesQuery = "filenotify.watches";
constexpr const char* kStatusQuery = "status.filenotify";

}  // namespace

FileNotifyModule::FileNotifyModule(std::unique_ptr<FileNotify::InotifyDescriptor> descriptor)
    : Framework::Module("filenotify_module"), descriptor_(std::move(descriptor)) {
    if (descriptor_ == nullptr) descriptor_ = std::make_unique<FileNotify::InotifyDescriptor>();
}

FileNotifyModule::~FileNotifyModule() = default;

bool FileNotifyModule::Init() {
    Poco::Logger* logger = SDK::LoggerUtils::GetInstance()->GetModuleLogger("filenotify_module", 0);
    FileNotifyTask::Settings settings;
    std::string error;
    if (!FileNotifyTask::ReadSettings(Framework::ConfigManager::GetInstance().Section("filenotify"),
                                      settings, error)) {
        SDK_LOG(logger, PRIO_ERROR, "configuration: %s.", error);
        return false;
    }
    if (!Framework::Module::Init()) return false;
    task_ = new FileNotifyTask(settings, std::move(descriptor_));
    auto& queries = Framework::Engine::Instance().Queries();
    queries.Register(kWatchesQuery,
                     [task = task_](const Json::Value&) { return task->Publisher().Watches(); });
    queries.Register(kStatusQuery,
                     [task = task_](const Json::Value&) { return task->Publisher().Status(); });
    task_->duplicate();
    return RegisterTask(task_.get(), false);
}

void FileNotifyModule::UnInit() {
    UnRegisterTask(FileNotifyTask::kId);
    auto& queries = Framework::Engine::Instance().Queries();
    queries.Unregister(kWatchesQuery);
    queries.Unregister(kStatusQuery);
    task_.reset();
    Framework::Module::UnInit();
}

}  // namespace Engine

extern "C" void* CreateModule() {
    return static_cast<Framework::Module*>(new (std::nothrow) Engine::FileNotifyModule());
}
