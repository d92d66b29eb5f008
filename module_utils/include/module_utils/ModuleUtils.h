#pragma once

#include <string>

namespace Framework {
class Message;
}

namespace Engine {

/// Sends messages for the agent's modules. Thread-safe. True when the report task took the message;
/// every outcome is logged to the agent's root logger.

/// Queues `msg` for the task `taskName`. On failure the caller keeps the message.
bool SendMessage(const std::string& taskName, Framework::Message* msg);

/// A command-channel report with that id.
bool SendCmdMessage(const std::string& msgId, const std::string& body);

/// A data-channel report of that event kind.
bool SendDataMessage(const std::string& event, const std::string& body);

/// A data-channel report of the alarm kind, "2"; `event` is for the log only.
bool SendAlarmMessage(const std::string& event, const std::string& body);

/// Reports a permanent failure: command id "feature_exception_1". Neither text is escaped.
bool SendUnrepairableException(const std::string& name, const std::string& exception);

}  // namespace Engine
