#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "shield/ShieldRule.h"

namespace Sentry {

/// Puts one page right where it is, so that an open of it that waits gets what was approved.
/// Stateless; thread-safe.
class Healer {
  public:
    /// Takes what was tampered, a copy in memory, before it is overwritten.
    using Keep = std::function<void(int content)>;

    /// `file` is the open file at `below`. Takes the copy only when it is what the manifest says,
    /// and writes only to a regular file with no other name, at most `most_bytes` long. Empty, or
    /// in words why the file is not as approved.
    static std::string Heal(const ShieldRule& rule, const SDK::PathAnchor& root,
                            const std::string& below, const Baseline::ManifestEntry& approved,
                            int file, std::uint64_t most_bytes, const Keep& keep);
};

}  // namespace Sentry
