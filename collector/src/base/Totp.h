#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace Collector {

// Codes of six digits that change every 30 seconds (RFC 6238, SHA-1), as phones make them.

/// A random secret, base32.
std::string NewTotpSecret();

/// The step of the clock that `code` belongs to: the present one, the last or the next, but none up
/// to `last_step`, so that a code is good once. None when it is wrong.
std::optional<std::int64_t> TotpStep(const std::string& secret, const std::string& code,
                                     std::int64_t now_s, std::int64_t last_step);

}  // namespace Collector
