// Owns: NotifyCore, the request queue and the status.
// Must not own: posted messages (the framework).
// Threads: InterceptMsg runs on senders' threads, the rest on the task's.
// Ownership passes: Post hands a message to the framework when it returns true.

#include "FileNotifyTask.h"

#include <framework/Engine.h>
#include <framework/QueryRegistry.h>
#include <module_filenotify/FileNotifyWatchMessage.h>
#include <sdk/log/Log.h>
#include <sdk/log/LoggerUtils.h>

#include <algorithm>
#include <system_error>
#include <utility>

namespace Engine {

namespace {

constexpr unsigned int kQueueCapacity = 64;
constexpr int kMaxSources = 4;
constexpr std::size_t kMaxMessages = 16;
constexpr int kMinRetryMs = 10;
constexpr int kMaxRetryMs = 600000;
constexpr int kMaxQueuedEvents = 16777216;

bool IsWithin(const Json::Value& value, int least, int most) {
    return value.isInt() && value.asInt() >= least && value.asInt() <= most;
}

Poco::Logger* ModuleLogger() {
    return SDK::LoggerUtils::GetInstance()->GetModuleLogger("filenotify_module", 0);
}

/// Asks the receiver by a query, because a watch request has no field for it. No answer: nothing
/// is ignored.
std::vector<std::string> IgnoredPrefixes(const std::string& receiver, const std::string& path) {
    Json::Value question;
    question["path"] = path;
    Json::Value answer;
    std::vector<std::string> prefixes;
    const auto& queries = Framework::Engine::Instance().Queries();
    if (!queries.Ask("exclusions." + receiver, question, answer) || !answer.isObject()) return {};
    for (const Json::Value& prefix : answer["prefixes"]) {
        if (prefix.isString() && !prefix.asString().empty()) prefixes.push_back(prefix.asString());
    }
    return prefixes;
}

/// Returns why the setting is invalid; empty when it is valid.
std::string ReadSetting(const std::string& key, const Json::Value& value,
                        FileNotifyTask::Settings& settings) {
    if (key == "retry_ms") {
        if (!IsWithin(value, kMinRetryMs, kMaxRetryMs)) {
            return "/filenotify/retry_ms must be a number from 10 to 600000";
        }
        settings.retry_after = std::chrono::milliseconds(value.asInt());
        return {};
    }
    if (key == "max_queued_events") {
        if (!IsWithin(value, 0, kMaxQueuedEvents)) {
            return "/filenotify/max_queued_events must be a number from 0 to 16777216";
        }
        settings.max_queued_events = value.asUInt();
        return {};
    }
    return "/filenotify/" + key + " is unknown";
}

bool Post(const std::string& receiver, Framework::Message* message) {
    return Framework::Engine::Instance().PostMessage(receiver, message);
}

}  // namespace

bool FileNotifyTask::ReadSettings(const Json::Value& section, Settings& settings,
                                  std::string& error) {
    error.clear();
    if (!section.isObject()) {
        error = "/filenotify must be an object";
        return section.isNull();
    }
    for (const std::string& key : section.getMemberNames()) {
        error = ReadSetting(key, section[key], settings);
        if (!error.empty()) return false;
    }
    return true;
}

FileNotifyTask::FileNotifyTask(const Settings& settings,
                               std::unique_ptr<FileNotify::InotifyDescriptor> descriptor)
    : Framework::Task(kId, "filenotify_feature", Framework::TaskCondition::kResident,
                      kQueueCapacity),
      logger_(ModuleLogger()),
      queue_limit_(settings.queue_limit_file, settings.max_queued_events, logger_),
      requests_(IgnoredPrefixes),
      core_(std::move(descriptor), Post, status_, logger_, settings.retry_after),
      retry_after_(settings.retry_after) {}

FileNotifyTask::~FileNotifyTask() = default;

bool FileNotifyTask::Init() {
    if (core_.WakeFd() >= 0) Waiter().AddSource(core_.WakeFd(), [this] { core_.ClearWake(); });
    return Framework::Task::Init() && EnsureOpen();
}

bool FileNotifyTask::UnInit() {
    requests_.Close();
    if (std::exchange(listening_, false)) Waiter().RemoveSource(core_.Fd());
    if (core_.WakeFd() >= 0) Waiter().RemoveSource(core_.WakeFd());
    core_.Close();
    return Framework::Task::UnInit();
}

bool FileNotifyTask::EnsureOpen() {
    if (core_.Fd() >= 0) return true;
    const int error = queue_limit_.OpenRaised([this] { return core_.Open(); });
    status_.SetQueueLimit(queue_limit_.InForce(), queue_limit_.Problem());
    if (error == 0 && Waiter().AddSource(core_.Fd(), [this] { core_.ReadEvents(); })) {
        listening_ = true;
        open_failure_logged_ = false;
        core_.SetQueueLimit(queue_limit_.InForce());
        return true;
    }
    if (!std::exchange(open_failure_logged_, true)) {
        SDK_LOG(logger_, PRIO_ERROR, "cannot use inotify: %s; retrying.",
                std::generic_category().message(error != 0 ? error : errno));
    }
    core_.Close();
    return false;
}

// During a pause the descriptor is no event source, because waking the task costs the writers time.
void FileNotifyTask::Listen() {
    if (core_.IsPaused()) {
        if (std::exchange(listening_, false)) Waiter().RemoveSource(core_.Fd());
    } else if (!listening_) {
        core_.ReadEvents();
        if (core_.IsPaused()) return;
        listening_ = Waiter().AddSource(core_.Fd(), [this] { core_.ReadEvents(); });
    }
}

int FileNotifyTask::Run() {
    if (!EnsureOpen()) {
        Waiter().WaitAndHandleEvent(static_cast<int>(retry_after_.count()), kMaxSources);
        BulkConsumeMsg(kMaxMessages);
        return 0;
    }
    Listen();
    auto idle = core_.IdleTime();
    if (!listening_) idle = std::min(idle, FileNotify::ReadBackoff::kMaxPause);
    if (idle.count() > 0) core_.PublishStatus();
    Waiter().WaitAndHandleEvent(static_cast<int>(idle.count()), kMaxSources);
    BulkConsumeMsg(kMaxMessages);
    // Between reading and handling events: subscriptions made before a change receive it.
    const std::uint64_t requests = status_.ReceivedRequests();
    core_.Apply(requests_.Take());
    status_.SetAppliedRequests(requests);
    core_.Work();
    return 0;
}

int FileNotifyTask::InterceptMsg(Framework::Message* msg, std::string& reply) {
    const auto* request = dynamic_cast<const FileNotifyWatchMessage*>(msg);
    if (request == nullptr) return -1;
    reply = requests_.Submit(*request);
    status_.CountRequest();
    if (reply.empty()) {
        SDK_LOG(logger_, PRIO_ERROR, "watch request of %s for \"%s\" refused.",
                request->GetReceiverId(), request->GetPath());
    }
    Waiter().Wake();
    return 0;
}

}  // namespace Engine
