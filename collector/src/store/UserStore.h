#pragma once

#include <console/Backend.h>
#include <database/Session.h>
#include <json/value.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace Collector {

/// Somebody who may use the console.
struct UserRecord {
    std::string name;
    Console::Role role = Console::Role::kViewer;
    std::string password_hash;
    std::string totp_secret;         ///< empty: no second factor
    std::int64_t totp_step = 0;      ///< of the last code
    std::int64_t last_login_ms = 0;  ///< 0: never
};

/// The users of the console and what they did, in the collector's database, whose tables FleetStore
/// makes. Operations return false on failure; Error says why. Not thread-safe.
class UserStore {
  public:
    bool Open(const Database::Location& location);

    /// Adds the user or replaces the one of that name.
    bool Save(const UserRecord& user);
    /// False also when there is none.
    bool Remove(const std::string& name);
    std::optional<UserRecord> Find(const std::string& name);
    std::vector<UserRecord> List();

    /// The audit log: `act` is a sentence's predicate, such as "logged in".
    bool AddAct(const std::string& user, const std::string& act, std::int64_t now_ms);
    /// [{"time_ms", "user", "act"}], the newest first.
    Json::Value Acts(int limit);

    std::string Error() const { return session_ == nullptr ? error_ : session_->Error(); }

  private:
    std::unique_ptr<Database::Session> session_;
    std::string error_;  ///< of opening
};

std::optional<Console::Role> RoleNamed(const std::string& name);

}  // namespace Collector
