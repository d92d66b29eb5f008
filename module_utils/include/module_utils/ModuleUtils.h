#pragma once

#include <string>

namespace Framework {
class Message;
}

namespace Engine {

/// Message sending shared by the agent's modules. Any task thread. True when the message was handed
/// to the report task; every outcome is logged to the agent's root logger.

/// Queues `msg` for the task `taskName`; a message that is not sent stays the caller's.
bool SendMessage(const std::string& taskName, Framework::Message* msg);

/// A command-channel report with that id.
bool SendCmdMessage(const std::string& msgId, const std::string& body);

/// A data-channel report of that event kind.
bool SendDataMessage(const std::string& event, const std::string& body);

/// A data-channel report of the alarm kind, "2"; `event` is for the log only.
bool SendAlarmMessage(const std::string& event, const std::string& body);

/// Reports that something failed for good: command id "feature_exception_1". Neither text is
/// escaped.
bool SendUnrepairableException(const std::string& name, const std::string& exception);

}  // namespace Engine
