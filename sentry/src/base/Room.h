#pragma once

#include <json/value.h>
#include <sdk/files/FileDescriptor.h>
#include <sys/types.h>

#include <functional>
#include <string>

namespace Sentry {

/// One of the sentry's two services. It works only while an agent is connected. Start, Answer and
/// Stop run on the service's thread, one at a time; none of them may wait for long.
class Room {
  public:
    /// Sends an event to the agent, with a file or without. False when it was not sent (errno).
    /// Thread-safe, never blocks.
    using Tell = std::function<bool(const Json::Value& event, int file)>;

    Room() = default;
    virtual ~Room() = default;
    Room(const Room&) = delete;
    Room& operator=(const Room&) = delete;

    /// The first part of its operations and events: "shield" of "shield.rules".
    virtual std::string Name() const = 0;

    /// An agent is connected. `settings` is the section "sentry" of its conf/agent.json. `agent` is
    /// its process.
    virtual void Start(const Json::Value& settings, pid_t agent, Tell tell) = 0;

    /// Answers the operation `operation`, the part behind the room's name. {"error"} for what it
    /// does not know.
    virtual Json::Value Answer(const std::string& operation, const Json::Value& request) = 0;

    /// For the status of the agent: {"state": "off"|"running"|"refused", "why", …}.
    virtual Json::Value Status() const = 0;

    /// The agent is gone. Releases everything in the kernel.
    virtual void Stop() = 0;
};

}  // namespace Sentry
