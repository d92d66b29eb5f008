#pragma once

#include <json/value.h>

#include <string>

namespace Ctl {

/// The agent's answer.
struct Answer {
    enum class Kind {
        kAnswered,  ///< the agent answered with `status` and `body`
        kNoAgent,   ///< no agent listens, or it ended before it answered
        kDenied,    ///< the socket cannot be opened, or the agent refused the client
        kBroken,    ///< no answer in time, or not from an agent
    };
    Kind kind = Kind::kBroken;
    int status = 0;
    Json::Value body;
    std::string problem;  ///< a sentence, unless kAnswered
};

/// Sends requests to the control API on a Unix socket, one connection per request. Not thread-safe.
class ControlClient {
  public:
    explicit ControlClient(const std::string& socket_path) : socket_path_(socket_path) {}

    /// Blocks; gives up after about `timeout_s` without data from the agent. `address` must be
    /// encoded.
    Answer Send(const std::string& method, const std::string& address, const std::string& body,
                int timeout_s) const;

    Answer Get(const std::string& address) const;

  private:
    Answer Exchange(int socket, const std::string& method, const std::string& address,
                    const std::string& body, int timeout_s) const;

    const std::string socket_path_;
};

/// One encoded segment of an address.
std::string Encoded(const std::string& segment);

}  // namespace Ctl
