#pragma once

#include <string>
#include <string_view>

namespace SDK {

/// HMAC-SHA256 (RFC 2104) in lower-case hex; empty on failure. Stateless and thread-safe.
std::string HmacSha256(std::string_view key, std::string_view message);

}  // namespace SDK
