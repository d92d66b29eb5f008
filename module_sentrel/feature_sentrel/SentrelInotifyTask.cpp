// Owns the watches of the protected paths, from Init to UnInit. It must not read inotify (the
// file-notify module does) nor judge events (SentrelEvents.cpp). Task's own thread; watch requests
// go to the file-notify task, which frees them.
#include <SentrelInotifyTask.h>
#include <SentrelStatus.h>
#include <SentrelUtils.h>
#include <TaskSteps.h>
#include <module_filenotify/FileNotifyOpt.h>
#include <module_filenotify/FileNotifyWatchMessage.h>
#include <sdk/Log.h>
#include <sys/inotify.h>

#include <algorithm>
#include <new>
#include <utility>
#include <vector>

namespace Engine {

namespace {

constexpr const char* kTaskId = "sentrel_inotify_task";
constexpr unsigned int kQueueCapacity = 1024;
constexpr int kWaitMs = 1000;
constexpr int kMaxEventSources = 10;
constexpr std::size_t kMaxMessagesPerCycle = 128;
constexpr int kWatchTimeoutMs = 1000;
constexpr int kWatchRetries = 2;

const std::vector<unsigned int>& WatchEventMasks() {
    static const std::vector<unsigned int> watch_event_masks = {
        IN_CREATE,      IN_MODIFY,   IN_DELETE, IN_ATTRIB, IN_MOVED_FROM | IN_MOVED_TO,
        IN_DELETE_SELF, IN_MOVE_SELF};
    return watch_event_masks;
}

}  // namespace

SentrelInotifyTask::SentrelInotifyTask(std::size_t backlog)
    : Framework::Task(kTaskId, "sentrel_feature", Framework::TaskCondition::kResident,
                      kQueueCapacity),
      deferred_(backlog),
      failed_(std::min(backlog, FailedEvents::kCapacity)) {}

bool SentrelInotifyTask::Init() {
    SDK_LOG(ModuleLogger(), PRIO_INFORMATION, "Task(%s) init.", Id());
    AddFileNotifyWatches();
    PrepareRsyncForTask();
    return Framework::Task::Init();
}

bool SentrelInotifyTask::UnInit() {
    RmvFileNotifyWatches();
    watch_rules.clear();
    ForgetBacklog();
    SentrelStatus::Instance().ClearPaths();
    const bool result = Framework::Task::UnInit();
    SDK_LOG(ModuleLogger(), PRIO_INFORMATION, "Task(%s) uninit.", Id());
    return result;
}

int SentrelInotifyTask::Run() {
    static unsigned long last_cpu_tick = 0;
    CheckDisableTime();
    YieldCpu(last_cpu_tick, __FILE__, __LINE__, kTaskId);
    HandleBacklog(FailedEvents::Clock::now());
    if (Waiter().WaitAndHandleEvent(kWaitMs, kMaxEventSources) == -1) {
        BulkConsumeMsg(kMaxMessagesPerCycle);
    }
    SendPendingAlarm();
    CleanOldMessageFromCache();
    return 0;
}

void SentrelInotifyTask::AddFileNotifyWatches() {
    const std::list<SentrelDirRule>& rules = SentrelUtils::GetInstance()->dir_rules;
    if (rules.empty() || state() == TASK_CANCELLING) return;
    std::vector<SentrelStatus::ProtectedPath> paths;
    for (const SentrelDirRule& rule : rules) {
        const std::string id = HandleFileNotifyWatch(false, rule.real_path);
        watch_rules.insert({id, rule});
        paths.push_back({id, rule});
    }
    SentrelStatus::Instance().PublishPaths(std::move(paths));
}

void SentrelInotifyTask::RmvFileNotifyWatches() {
    for (const auto& [id, rule] : watch_rules) HandleFileNotifyWatch(true, rule.real_path);
}

std::string SentrelInotifyTask::HandleFileNotifyWatch(bool remove, const std::string& path) {
    _FileNotifyOpt options;
    options.recursive = true;
    options.report_directories = true;
    options.rewatch = true;
    options.remove = remove;
    std::string id;
    SDK_LOG(ModuleLogger(), PRIO_INFORMATION, "1monitor (%b) id (%s) for rule(%s).", remove, id,
            path);
    auto* message =
        new (std::nothrow) FileNotifyWatchMessage(this, path, WatchEventMasks(), options);
    if (message != nullptr) {
        SyncSendDirectMsg("filenotify_task", message, id, kWatchTimeoutMs, kWatchRetries);
    }
    SDK_LOG(ModuleLogger(), PRIO_INFORMATION, "2monitor (%b) id (%s) for rule(%s).", remove, id,
            path);
    return id;
}

}  // namespace Engine
