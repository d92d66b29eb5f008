// Owns: the parts of the watching and the requests on their way in.
// Not: messages once posted (the framework's), nor what receivers make of them.
// Threads: InterceptMsg on the senders', the rest on the task's.

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
constexpr int kSourcesAtOnce = 4;
constexpr std::size_t kMessagesAtOnce = 16;
constexpr int kShortestRetryMs = 10;
constexpr int kLongestRetryMs = 600000;
constexpr int kMostQueuedEvents = 16777216;

bool IsWithin(const Json::Value& value, int least, int most) {
    return value.isInt() && value.asInt() >= least && value.asInt() <= most;
}

Poco::Logger* ModuleLogger() {
    return SDK::LoggerUtils::GetInstance()->GetModuleLogger("filenotify_module", 0);
}

/// The request itself cannot carry it, so its receiver is asked; one that answers nothing needs
/// all.
std::vector<std::string> UnneededBy(const std::string& receiver, const std::string& path) {
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
        const Json::Value& value = section[key];
        if (key == "retry_ms") {
            if (!IsWithin(value, kShortestRetryMs, kLongestRetryMs)) {
                error = "/filenotify/retry_ms must be a number from 10 to 600000";
            } else {
                settings.retry_after = std::chrono::milliseconds(value.asInt());
            }
        } else if (key == "max_queued_events") {
            if (!IsWithin(value, 0, kMostQueuedEvents)) {
                error = "/filenotify/max_queued_events must be a number from 0 to 16777216";
            } else {
                settings.max_queued_events = value.asUInt();
            }
        } else {
            error = "/filenotify/" + key + " is unknown";
        }
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
      requests_(UnneededBy),
      core_(std::move(descriptor), Post, status_, logger_, settings.retry_after),
      retry_after_(settings.retry_after) {}

FileNotifyTask::~FileNotifyTask() = default;

bool FileNotifyTask::Init() {
    if (core_.WakeFd() >= 0) Waiter().AddSource(core_.WakeFd(), [this] { core_.Woken(); });
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
    if (error == 0 && Waiter().AddSource(core_.Fd(), [this] { core_.Fill(); })) {
        listening_ = true;
        open_failure_logged_ = false;
        core_.SetQueueLimit(queue_limit_.InForce());
        return true;
    }
    if (!std::exchange(open_failure_logged_, true)) {
        SDK_LOG(logger_, PRIO_ERROR, "inotify cannot be used: %s; it is tried again.",
                std::generic_category().message(error != 0 ? error : errno));
    }
    core_.Close();
    return false;
}

// While the kernel's queue is left alone, nothing is asked to wake us: that, too, costs whoever
// makes the changes.
void FileNotifyTask::Listen() {
    if (core_.IsResting()) {
        if (std::exchange(listening_, false)) Waiter().RemoveSource(core_.Fd());
    } else if (!listening_) {
        core_.Fill();
        if (core_.IsResting()) return;
        listening_ = Waiter().AddSource(core_.Fd(), [this] { core_.Fill(); });
    }
}

int FileNotifyTask::Run() {
    if (!EnsureOpen()) {
        Waiter().WaitAndHandleEvent(static_cast<int>(retry_after_.count()), kSourcesAtOnce);
        BulkConsumeMsg(kMessagesAtOnce);
        return 0;
    }
    Listen();
    auto idle = core_.IdleTime();
    if (!listening_) idle = std::min(idle, FileNotify::ReadBackoff::kLongest);
    if (idle.count() > 0) core_.PublishStatus();
    Waiter().WaitAndHandleEvent(static_cast<int>(idle.count()), kSourcesAtOnce);
    BulkConsumeMsg(kMessagesAtOnce);
    // After reading and before handling: who asked before a change hears of it.
    const std::uint64_t requests = status_.Requests();
    core_.Apply(requests_.Take());
    status_.NoteApplied(requests);
    core_.Work();
    return 0;
}

int FileNotifyTask::InterceptMsg(Framework::Message* msg, std::string& reply) {
    const auto* request = dynamic_cast<const FileNotifyWatchMessage*>(msg);
    if (request == nullptr) return -1;
    reply = requests_.Submit(*request);
    status_.NoteRequest();
    if (reply.empty()) {
        SDK_LOG(logger_, PRIO_ERROR, "watch request of %s for \"%s\" refused.",
                request->GetReceiverId(), request->GetPath());
    }
    Waiter().Wake();
    return 0;
}

}  // namespace Engine
