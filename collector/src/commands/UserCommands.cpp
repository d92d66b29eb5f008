#include <sdk/text/Printable.h>
#include <sdk/text/Secret.h>
#include <sdk/time/TimeUtils.h>

#include <algorithm>
#include <cctype>
#include <iostream>
#include <optional>

#include "base/CollectorSettings.h"
#include "base/Password.h"
#include "base/Totp.h"
#include "commands/Commands.h"
#include "commands/DatabaseAccess.h"
#include "store/UserStore.h"

namespace Collector {

namespace {

constexpr std::size_t kMostName = 64;
constexpr std::int64_t kMsPerSecond = 1000;

bool IsName(const std::string& name) {
    return !name.empty() && name.size() <= kMostName &&
           std::all_of(name.begin(), name.end(), [](unsigned char c) {
               return std::isalnum(c) != 0 || c == '.' || c == '_' || c == '-' || c == '@';
           });
}

bool Open(const Arguments& arguments, UserStore& users) {
    Database::Location location;
    if (!FindDatabase(arguments, location)) return false;
    if (users.Open(location)) return true;
    Fail("cannot open the database " + location.Text() +
         ", which the service makes: " + users.Error());
    return false;
}

/// The act of whoever runs the command, in the audit log.
bool Note(UserStore& users, const std::string& act) {
    return users.AddAct("(command)", act, SDK::TimeUtils::GetCurrentTimestampS() * kMsPerSecond);
}

int Stored(bool is_stored, UserStore& users) {
    return is_stored ? kExitOk : Fail("cannot store it: " + users.Error());
}

}  // namespace

int AddUser(const Arguments& arguments) {
    if (!IsName(arguments.user)) {
        return Fail("a name has at most 64 letters, digits, \".\", \"_\", \"-\" and \"@\"");
    }
    UserStore users;
    std::string password;
    std::string error;
    if (!Open(arguments, users)) return kExitFailed;
    if (!SDK::ReadPassword("Password of " + arguments.user + ": ", password, error)) {
        return Fail(error);
    }
    if (password.size() < kLeastPassword || password.size() > kMostPassword) {
        return Fail("a password has 10 to 256 bytes");
    }
    UserRecord user = users.Find(arguments.user).value_or(UserRecord{});
    const bool is_new = user.name.empty();
    user.name = arguments.user;
    user.role = RoleNamed(arguments.role).value_or(Console::Role::kViewer);
    user.password_hash = HashPassword(password);
    SDK::EraseSecret(password);
    return Stored(users.Save(user) && Note(users, (is_new ? "added " : "changed ") + user.name +
                                                      " (" + arguments.role + ")"),
                  users);
}

int RemoveUser(const Arguments& arguments) {
    UserStore users;
    if (!Open(arguments, users)) return kExitFailed;
    if (!users.Find(arguments.user)) {
        return Fail("there is no user " + SDK::Printable(arguments.user));
    }
    return Stored(users.Remove(arguments.user) && Note(users, "removed " + arguments.user), users);
}

int MakeTotp(const Arguments& arguments) {
    UserStore users;
    if (!Open(arguments, users)) return kExitFailed;
    std::optional<UserRecord> user = users.Find(arguments.user);
    if (!user) return Fail("there is no user " + SDK::Printable(arguments.user));
    user->totp_secret = NewTotpSecret();
    user->totp_step = 0;
    if (!users.Save(*user) || !Note(users, "gave " + user->name + " a second factor")) {
        return Stored(false, users);
    }
    std::cout << "otpauth://totp/Sentrel:" << user->name << "?secret=" << user->totp_secret
              << "&issuer=Sentrel" << std::endl;
    return kExitOk;
}

int ListUsers(const Arguments& arguments) {
    UserStore users;
    if (!Open(arguments, users)) return kExitFailed;
    for (const UserRecord& user : users.List()) {
        std::cout << user.name << "  " << Console::RoleName(user.role)
                  << (user.totp_secret.empty() ? "  password only" : "  password and code")
                  << (user.last_login_ms == 0 ? "  never logged in" : "") << "\n";
    }
    return kExitOk;
}

}  // namespace Collector
