#include "store/UserStore.h"

namespace Collector {

using Console::Role;
using Console::RoleName;
using Database::SqliteRun;
using Database::SqliteStatement;

namespace {

constexpr int kBusyTimeoutMs = 5'000;
constexpr const char* kColumns =
    "SELECT name,role,password,totp,totp_step,last_login_ms FROM users";

UserRecord ToUser(const SqliteRun& row) {
    UserRecord user;
    user.name = row.Bytes(0);
    user.role = RoleNamed(row.Bytes(1)).value_or(Role::kViewer);
    user.password_hash = row.Bytes(2);
    user.totp_secret = row.Bytes(3);
    user.totp_step = row.Int(4);
    user.last_login_ms = row.Int(5);
    return user;
}

}  // namespace

std::optional<Role> RoleNamed(const std::string& name) {
    for (const Role role : {Role::kViewer, Role::kOperator, Role::kAdmin}) {
        if (name == RoleName(role)) return role;
    }
    return {};
}

bool UserStore::Open(const std::string& path) {
    return connection_.Open(path, kBusyTimeoutMs) == SQLITE_OK;
}

bool UserStore::Save(const UserRecord& user) {
    SqliteStatement statement;
    if (statement.Prepare(connection_,
                          "INSERT OR REPLACE INTO users(name,role,password,totp,totp_step,"
                          "last_login_ms) VALUES(?,?,?,?,?,?)") != SQLITE_OK) {
        return false;
    }
    const std::string role = RoleName(user.role);
    SqliteRun run(statement);
    run.BindText(1, user.name);
    run.BindText(2, role);
    run.BindText(3, user.password_hash);
    run.BindText(4, user.totp_secret);
    run.Bind(5, user.totp_step);
    run.Bind(6, user.last_login_ms);
    return run.Step() == SQLITE_DONE;
}

bool UserStore::Remove(const std::string& name) {
    SqliteStatement statement;
    if (statement.Prepare(connection_, "DELETE FROM users WHERE name=?") != SQLITE_OK) return false;
    SqliteRun run(statement);
    run.BindText(1, name);
    return run.Step() == SQLITE_DONE && sqlite3_changes(connection_.Handle()) > 0;
}

std::optional<UserRecord> UserStore::Find(const std::string& name) {
    SqliteStatement statement;
    if (statement.Prepare(connection_, std::string(kColumns) + " WHERE name=?") != SQLITE_OK) {
        return {};
    }
    SqliteRun run(statement);
    run.BindText(1, name);
    if (run.Step() != SQLITE_ROW) return {};
    return ToUser(run);
}

std::vector<UserRecord> UserStore::List() {
    std::vector<UserRecord> users;
    SqliteStatement statement;
    if (statement.Prepare(connection_, std::string(kColumns) + " ORDER BY name") != SQLITE_OK) {
        return users;
    }
    SqliteRun run(statement);
    while (run.Step() == SQLITE_ROW) users.push_back(ToUser(run));
    return users;
}

bool UserStore::AddAct(const std::string& user, const std::string& act, std::int64_t now_ms) {
    SqliteStatement statement;
    if (statement.Prepare(connection_, "INSERT INTO acts(time_ms,user,act) VALUES(?,?,?)") !=
        SQLITE_OK) {
        return false;
    }
    SqliteRun run(statement);
    run.Bind(1, now_ms);
    run.BindText(2, user);
    run.BindText(3, act);
    return run.Step() == SQLITE_DONE;
}

Json::Value UserStore::Acts(int limit) {
    Json::Value acts(Json::arrayValue);
    SqliteStatement statement;
    if (statement.Prepare(connection_,
                          "SELECT time_ms,user,act FROM acts ORDER BY id DESC LIMIT ?") !=
        SQLITE_OK) {
        return acts;
    }
    SqliteRun run(statement);
    run.Bind(1, std::int64_t{limit});
    while (run.Step() == SQLITE_ROW) {
        Json::Value act(Json::objectValue);
        act["time_ms"] = Json::Int64{run.Int(0)};
        act["user"] = run.Bytes(1);
        act["act"] = run.Bytes(2);
        acts.append(std::move(act));
    }
    return acts;
}

}  // namespace Collector
