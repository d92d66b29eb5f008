#pragma once

#include <baseline/TreeVerifier.h>

#include <array>
#include <cstddef>
#include <set>
#include <string>

namespace Ctl {

/// A difference with the protected path, or the place of its copies, in front.
struct FoundDifference {
    std::string root;  ///< without a trailing "/"
    Baseline::Difference difference;

    /// The absolute path of the object.
    std::string Path() const;
    bool operator<(const FoundDifference& other) const;
};

/// Counts differences and keeps the first ones in the order of their paths, however many a site's
/// user makes. Not thread-safe.
class DifferenceList {
  public:
    static constexpr std::size_t kKinds = 4;

    /// Keeps at most `limit`; 0: all.
    explicit DifferenceList(std::size_t limit) : limit_(limit) {}

    void Add(FoundDifference found);

    const std::multiset<FoundDifference>& Kept() const { return kept_; }
    std::size_t Count(Baseline::Difference::Kind kind) const {
        return counts_.at(static_cast<std::size_t>(kind));
    }
    std::size_t Total() const;

  private:
    const std::size_t limit_;
    std::multiset<FoundDifference> kept_;
    std::array<std::size_t, kKinds> counts_{};
};

}  // namespace Ctl
