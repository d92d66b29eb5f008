#pragma once

#include <console/Access.h>

#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>

#include "store/UserStore.h"

namespace Collector {

/// Lets users in with their password and, where they have one, a code. Answers one login at a time,
/// so that guesses are slow, and refuses a name for a minute after some wrong ones. Thread-safe.
class UserAccess : public Console::Access {
  public:
    /// `now_s`: seconds since the epoch, for tests.
    using Clock = std::int64_t (*)();
    explicit UserAccess(Clock now_s);

    /// False with `error`.
    bool Open(const Database::Location& database, std::string& error);

    std::string Kind() const override { return "password"; }
    /// Takes {"user", "password", "code"}.
    std::optional<Console::User> LogIn(const Json::Value& credentials) override;

    /// False once the user was removed or has another role, password or second factor.
    bool MayGoOn(const Console::User& user) override;

    static constexpr int kMostFailures = 5;
    static constexpr std::int64_t kLockSeconds = 60;

  private:
    struct Failures {
        int count = 0;
        std::int64_t last_s = 0;
    };
    bool IsLocked(const std::string& name, std::int64_t now_s);
    void NoteFailure(const std::string& name, std::int64_t now_s);

    const Clock now_s_;
    const std::string nobodys_hash_;  ///< compared for unknown users, who take as long
    std::mutex mutex_;                ///< guards all below
    UserStore users_;
    std::map<std::string, Failures> failures_;
};

}  // namespace Collector
