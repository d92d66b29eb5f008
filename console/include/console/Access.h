#pragma once

#include <json/value.h>

#include <chrono>
#include <mutex>
#include <optional>
#include <string>

#include "console/Backend.h"

namespace Console {

/// Decides who may use the console.
class Access {
  public:
    virtual ~Access() = default;

    /// What the login page asks for: "token" or "password".
    virtual std::string Kind() const = 0;

    /// The user whom the page's credentials (any JSON) belong to. Thread-safe; must not throw.
    virtual std::optional<User> LogIn(const Json::Value& credentials) = 0;

    /// A user who logged in earlier may go on. Asked for every request. Thread-safe; must not
    /// throw.
    virtual bool MayGoOn(const User& user) = 0;
};

/// Lets one browser in, with a random token that is good once and for a limited time.
class OneTimeToken : public Access {
  public:
    OneTimeToken(User user, std::chrono::seconds good_for);

    const std::string& Token() const { return token_; }

    std::string Kind() const override { return "token"; }
    bool MayGoOn(const User&) override { return true; }
    /// Takes {"token": TEXT}.
    std::optional<User> LogIn(const Json::Value& credentials) override;

  private:
    const User user_;
    const std::chrono::steady_clock::time_point end_;
    const std::string token_;
    std::mutex mutex_;  ///< guards the one below
    bool is_used_ = false;
};

/// 256 random bits as lower-case hex. Throws std::runtime_error when the system has none.
std::string RandomToken();

/// Compares in a time that depends on the lengths only.
bool IsSameToken(const std::string& one, const std::string& other);

}  // namespace Console
