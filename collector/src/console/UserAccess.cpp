#include "console/UserAccess.h"

#include <sdk/text/JsonUtils.h>

#include "base/Password.h"
#include "base/ServiceLog.h"
#include "base/Totp.h"

namespace Collector {

using SDK::JsonUtils;

namespace {

constexpr std::int64_t kMsPerSecond = 1000;
constexpr std::size_t kMostName = 64;
constexpr std::size_t kMostRemembered = 1000;

/// Another one after a change of the password or the second factor.
std::string StampOf(const UserRecord& user) {
    return user.password_hash + user.totp_secret;
}

}  // namespace

UserAccess::UserAccess(Clock now_s) : now_s_(now_s), nobodys_hash_(HashPassword("nobody's")) {}

bool UserAccess::Open(const Database::Location& database, std::string& error) {
    if (users_.Open(database)) return true;
    error = "cannot open " + database.Text() + ": " + users_.Error();
    return false;
}

std::optional<Console::User> UserAccess::LogIn(const Json::Value& credentials) {
    const std::string name = JsonUtils::GetStringValue(credentials, "user", "");
    const std::string password = JsonUtils::GetStringValue(credentials, "password", "");
    const std::string code = JsonUtils::GetStringValue(credentials, "code", "");
    if (name.size() > kMostName || password.size() > kMostPassword) return {};
    const std::lock_guard<std::mutex> lock(mutex_);
    const std::int64_t now_s = now_s_();
    if (IsLocked(name, now_s)) return {};
    std::optional<UserRecord> user = users_.Find(name);
    const bool is_password = IsPassword(user ? user->password_hash : nobodys_hash_, password);
    std::optional<std::int64_t> step = 0;
    if (user && !user->totp_secret.empty()) {
        step = TotpStep(user->totp_secret, code, now_s, user->totp_step);
    }
    if (!user || !is_password || !step) {
        NoteFailure(name, now_s);
        return {};
    }
    failures_.erase(name);
    user->totp_step = *step;
    user->last_login_ms = now_s * kMsPerSecond;
    // Without the record of the code it could be used again.
    if (!users_.Save(*user) || !users_.AddAct(name, "logged in", now_s * kMsPerSecond)) {
        Log(Severity::kError, "cannot store a login: " + users_.Error());
        return {};
    }
    return Console::User{user->name, user->role, StampOf(*user)};
}

bool UserAccess::MayGoOn(const Console::User& user) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const std::optional<UserRecord> known = users_.Find(user.name);
    return known && known->role == user.role && StampOf(*known) == user.stamp;
}

bool UserAccess::IsLocked(const std::string& name, std::int64_t now_s) {
    const auto found = failures_.find(name);
    if (found == failures_.end()) return false;
    if (now_s - found->second.last_s < kLockSeconds) return found->second.count >= kMostFailures;
    failures_.erase(found);
    return false;
}

void UserAccess::NoteFailure(const std::string& name, std::int64_t now_s) {
    if (failures_.size() >= kMostRemembered) failures_.clear();
    Failures& failures = failures_[name];
    ++failures.count;
    failures.last_s = now_s;
    if (failures.count != kMostFailures) return;
    Log(Severity::kWarning, "the console refuses a user for a minute after wrong passwords");
    users_.AddAct(name, "was refused for a minute after wrong passwords", now_s * kMsPerSecond);
}

}  // namespace Collector
