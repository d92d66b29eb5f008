#include "store/UserStore.h"

#include <sdk/text/Utf8.h>

namespace Collector {

using Console::Role;
using Console::RoleName;
using Database::Row;

namespace {

constexpr const char* kColumns =
    "SELECT name,role,password,totp,totp_step,last_login_ms FROM users";

UserRecord ToUser(const Row& row) {
    UserRecord user;
    user.name = row.Bytes(0);
    user.role = RoleNamed(row.Bytes(1)).value_or(Role::kViewer);
    user.password_hash = row.Bytes(2);
    user.totp_secret = row.Bytes(3);
    user.totp_step = row.Int(4);
    user.last_login_ms = row.Int(5);
    return user;
}

/// Names come from login forms, too, and a database takes no other text.
bool IsText(const std::string& text) {
    return text.find('\0') == std::string::npos && SDK::ToValidUtf8(text) == text;
}

}  // namespace

std::optional<Role> RoleNamed(const std::string& name) {
    for (const Role role : {Role::kViewer, Role::kOperator, Role::kAdmin}) {
        if (name == RoleName(role)) return role;
    }
    return {};
}

bool UserStore::Open(const Database::Location& location) {
    session_ = Database::Open(location, Database::Mode::kExisting, error_);
    return session_ != nullptr;
}

bool UserStore::Save(const UserRecord& user) {
    const std::string role = RoleName(user.role);
    return session_->Run(
        "INSERT INTO users(name,role,password,totp,totp_step,last_login_ms)"
        " VALUES(?1,?2,?3,?4,?5,?6) ON CONFLICT(name) DO UPDATE SET"
        " role=?2,password=?3,totp=?4,totp_step=?5,last_login_ms=?6",
        {user.name, role, user.password_hash, user.totp_secret, user.totp_step,
         user.last_login_ms});
}

bool UserStore::Remove(const std::string& name) {
    return session_->Run("DELETE FROM users WHERE name=?1", {name}) && session_->Changed() > 0;
}

std::optional<UserRecord> UserStore::Find(const std::string& name) {
    std::optional<UserRecord> user;
    if (!IsText(name)) return user;
    session_->Run(std::string(kColumns) + " WHERE name=?1", {name}, [&](const Row& row) {
        user = ToUser(row);
        return true;
    });
    return user;
}

std::vector<UserRecord> UserStore::List() {
    std::vector<UserRecord> users;
    session_->Run(std::string(kColumns) + " ORDER BY name", {}, [&](const Row& row) {
        users.push_back(ToUser(row));
        return true;
    });
    return users;
}

bool UserStore::AddAct(const std::string& user, const std::string& act, std::int64_t now_ms) {
    const std::string name = IsText(user) ? user : std::string("(no valid name)");
    return session_->Run("INSERT INTO acts(time_ms,\"user\",act) VALUES(?1,?2,?3)",
                         {now_ms, name, act});
}

Json::Value UserStore::Acts(int limit) {
    Json::Value acts(Json::arrayValue);
    session_->Run("SELECT time_ms,\"user\",act FROM acts ORDER BY id DESC LIMIT ?1",
                  {std::int64_t{limit}}, [&](const Row& row) {
                      Json::Value act(Json::objectValue);
                      act["time_ms"] = Json::Int64{row.Int(0)};
                      act["user"] = row.Bytes(1);
                      act["act"] = row.Bytes(2);
                      acts.append(std::move(act));
                      return true;
                  });
    return acts;
}

}  // namespace Collector
