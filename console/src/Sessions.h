#pragma once

#include <chrono>
#include <map>
#include <mutex>
#include <optional>
#include <string>

#include "console/Backend.h"

namespace Console {

/// Browsers that are logged in. Thread-safe.
class Sessions {
  public:
    struct Session {
        User user;
        std::string csrf;  ///< what a request that changes something must repeat
    };

    explicit Sessions(std::chrono::seconds idle_limit) : idle_limit_(idle_limit) {}

    /// Returns the session's secret name, for the cookie.
    std::string Begin(User user);

    /// The session of the cookie, which is used now; none when it is unknown or was idle too long.
    std::optional<Session> Find(const std::string& id);

    void End(const std::string& id);

  private:
    using Clock = std::chrono::steady_clock;
    struct Known {
        Session session;
        Clock::time_point last_used;
    };
    static constexpr std::size_t kMost = 1000;

    void DropIdle(Clock::time_point now);

    const std::chrono::seconds idle_limit_;
    std::mutex mutex_;  ///< guards the one below
    std::map<std::string, Known> known_;
};

}  // namespace Console
