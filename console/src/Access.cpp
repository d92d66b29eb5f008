#include "console/Access.h"

#include <openssl/crypto.h>
#include <openssl/rand.h>
#include <sdk/text/JsonUtils.h>

#include <array>
#include <stdexcept>
#include <utility>

namespace Console {

OneTimeToken::OneTimeToken(User user, std::chrono::seconds good_for)
    : user_(std::move(user)),
      end_(std::chrono::steady_clock::now() + good_for),
      token_(RandomToken()) {}

std::optional<User> OneTimeToken::LogIn(const Json::Value& credentials) {
    const std::string token = SDK::JsonUtils::GetStringValue(credentials, "token", "");
    if (!IsSameToken(token, token_) || std::chrono::steady_clock::now() >= end_) return {};
    const std::lock_guard<std::mutex> lock(mutex_);
    if (std::exchange(is_used_, true)) return {};
    return user_;
}

std::string RandomToken() {
    constexpr char kHex[] = "0123456789abcdef";
    std::array<unsigned char, 32> bytes{};
    if (::RAND_bytes(bytes.data(), static_cast<int>(bytes.size())) != 1) {
        throw std::runtime_error("the system has no random numbers");
    }
    std::string text;
    for (const unsigned char byte : bytes) {
        text += kHex[byte >> 4U];
        text += kHex[byte & 0xFU];
    }
    return text;
}

bool IsSameToken(const std::string& one, const std::string& other) {
    return one.size() == other.size() && ::CRYPTO_memcmp(one.data(), other.data(), one.size()) == 0;
}

}  // namespace Console
