#pragma once

#include <json/value.h>

#include <string>

namespace Ctl {

/// What came back from the agent.
struct Answer {
    enum class Kind {
        kAnswered,  ///< `status` and `body` are the agent's
        kNoAgent,   ///< nobody listens, or whoever did went away before answering
        kDenied,    ///< the socket may not be opened, or the agent turned us away
        kBroken,    ///< no answer in time, or one that is not the agent's
    };
    Kind kind = Kind::kBroken;
    int status = 0;
    Json::Value body;
    std::string problem;  ///< a sentence, unless kAnswered
};

/// Talks to the control API on a Unix socket, one connection a request. One thread.
class ControlClient {
  public:
    explicit ControlClient(const std::string& socket_path) : socket_path_(socket_path) {}

    /// Blocks for at most about `timeout_s` without a word from the agent. `address` is encoded
    /// already.
    Answer Send(const std::string& method, const std::string& address, const std::string& body,
                int timeout_s) const;

    Answer Get(const std::string& address) const;

  private:
    Answer Exchange(int socket, const std::string& method, const std::string& address,
                    const std::string& body, int timeout_s) const;

    const std::string socket_path_;
};

/// One segment of an address.
std::string Encoded(const std::string& segment);

}  // namespace Ctl
