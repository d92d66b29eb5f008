#pragma once

#include <sdk/files/ExclusionPatterns.h>

#include <string>
#include <vector>

#include "base/SentrelDirRule.h"

namespace Engine {

/// Says which objects rsync leaves alone, on both sides, because of a rule's exclusions. Immutable;
/// thread-safe.
class RsyncExclusions : public SDK::ExclusionPatterns {
  public:
    explicit RsyncExclusions(const SentrelDirRule& rule) : ExclusionPatterns(PatternsOf(rule)) {}
    explicit RsyncExclusions(const std::vector<std::string>& patterns)
        : ExclusionPatterns(patterns) {}

    /// The rule's exclusions as patterns of rsync.
    static std::vector<std::string> PatternsOf(const SentrelDirRule& rule);
};

}  // namespace Engine
