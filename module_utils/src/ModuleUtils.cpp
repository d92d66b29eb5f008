#include <framework/Engine.h>
#include <framework/Message.h>
#include <framework/Task.h>
#include <module_utils/ModuleUtils.h>
#include <sdk/log/Log.h>
#include <sdk/log/LoggerUtils.h>
#include <sdk/text/StrUtils.h>

#include <new>

namespace Engine {
namespace {

constexpr const char* kCmdReportTask = "cmd_comm_report_task";
constexpr const char* kDataReportTask = "data_comm_report_task";
constexpr const char* kAlarmEvent = "2";
constexpr const char* kExceptionId = "feature_exception_1";

Poco::Logger* RootLogger() {
    return SDK::LoggerUtils::GetInstance()->GetRootLogger();
}

/// The log's words for a kind of message and its key.
struct LogWords {
    std::string kind;
    std::string key;
};

// Sends `msg` (null when the allocation failed) and logs the outcome. A refused message is not
// deleted: another object may still hold it.
bool HandOver(const std::string& task, Framework::Message* msg, const LogWords& words,
              const std::string& name, std::size_t length) {
    Poco::Logger* const logger = RootLogger();
    if (msg == nullptr) {
        SDK_LOG(logger, PRIO_ERROR, "send %s message failed. %s=%s, msgLen=%?u, message=null",
                words.kind, words.key, name, length);
        return false;
    }
    if (SendMessage(task, msg)) {
        SDK_LOG(logger, PRIO_INFORMATION, "send %s message to queue success. %s=%s, msgLen=%?u",
                words.kind, words.key, name, length);
        return true;
    }
    SDK_LOG(logger, PRIO_ERROR, "send %s message to queue failed. %s=%s, msgLen=%?u", words.kind,
            words.key, name, length);
    return false;
}

}  // namespace

bool SendMessage(const std::string& taskName, Framework::Message* msg) {
    Framework::Task* const task = Framework::Engine::Instance().FindTask(taskName);
    if (task != nullptr) return Framework::Task::SendAgileMsg(task, msg);
    SDK_LOG(RootLogger(), PRIO_ERROR, "send cmd message failed. taskPtr=null");
    return false;
}

bool SendCmdMessage(const std::string& msgId, const std::string& body) {
    auto* const msg = new (std::nothrow) Framework::CmdMessage(msgId, body);
    return HandOver(kCmdReportTask, msg, {"cmd", "msgId"}, msgId, body.size());
}

bool SendDataMessage(const std::string& event, const std::string& body) {
    auto* const msg = new Framework::DataMessage(event, body);
    return HandOver(kDataReportTask, msg, {"data", "event"}, event, body.size());
}

bool SendAlarmMessage(const std::string& event, const std::string& body) {
    auto* const msg = new Framework::DataMessage(kAlarmEvent, body);
    return HandOver(kDataReportTask, msg, {"alarm", "event"}, event, body.size());
}

bool SendUnrepairableException(const std::string& name, const std::string& exception) {
    return SendCmdMessage(
        kExceptionId, SDK::StrUtils::Format("{\"name\":\"%s\", \"exception\":\"%s\"}", name.c_str(),
                                            exception.c_str()));
}

}  // namespace Engine
