#pragma once

#include <baseline/TreeVerifier.h>

#include <cstddef>
#include <functional>
#include <string>

#include "baseline/RuleBaselines.h"
#include "places/RuleAnchors.h"

namespace Engine {

/// Makes present differences of a protected path part of its backup copies, object by object, by
/// held descriptors. For one use; backup task's thread.
class Acceptance {
  public:
    struct Result {
        std::size_t objects = 0;  ///< taken into the copies
        std::string error = {};  ///< the first failure in words; the others were taken all the same
    };

    /// `is_over` is asked often; true ends the work with an error. Borrows `rule` and `replaced`.
    Acceptance(const AnchoredRule& rule, RuleBaselines::Known manifest, ReplacedCopies& replaced,
               std::function<bool()> is_over);

    /// Takes all differences at and below `part`, a path relative to the protected path.
    Result Take(const std::string& part);

  private:
    int TakeOne(const Baseline::Difference& difference);
    int Drop(const std::string& path, const std::string& below);
    int TakeDirectory(const std::string& path, const Baseline::Difference& difference);

    const AnchoredRule& rule_;
    const RuleBaselines::Known manifest_;
    ReplacedCopies& replaced_;
    const std::function<bool()> is_over_;
};

}  // namespace Engine
