#pragma once

#include <baseline/Manifest.h>
#include <baseline/TreeVerifier.h>
#include <sdk/files/PathAnchor.h>

#include <cstddef>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "baseline/RuleBaselines.h"
#include "places/RuleAnchors.h"
#include "rsync/RsyncExclusions.h"

namespace Engine {

/// Makes backup copies what an older manifest says: contents come from the copies themselves and
/// from those that were replaced since, attributes from the manifest. What the rule or the manifest
/// excludes, and what could not be copied then, stays as it is. Works by held descriptors. For one
/// use; backup task's thread.
class Rollback {
  public:
    struct Result {
        std::size_t objects = 0;
        std::string error = {};  ///< a sentence; empty: done
    };

    /// `wanted` is the manifest of generation `number`. `is_over` is asked often; true ends the
    /// search. Borrows `rule` and `replaced`, which takes what leaves the copies.
    Rollback(const AnchoredRule& rule, RuleBaselines::Known wanted, unsigned int number,
             ReplacedCopies& replaced, std::function<bool()> is_over);

    /// Finds what is to be changed at and below `part`, a path relative to the protected path, and
    /// where all contents are. Changes nothing. An error when a content is nowhere.
    Result Plan(const std::string& part);

    /// Changes the copies as planned. Ends with the first failure; another rollback, to this
    /// manifest or another one, goes on from there.
    Result CarryOut();

  private:
    struct Step {
        enum class What { kRemove, kMakeDirectory, kPutBack, kAlign };
        What what;
        std::string path;       ///< relative to the protected path
        std::size_t entry = 0;  ///< in the manifest
        std::size_t run = 0;    ///< in runs_, of kPutBack
    };

    bool IsIgnored(const std::string& below, bool is_directory) const;
    bool Compare(const std::string& part, std::vector<Baseline::Difference>& differences) const;
    void PlanDifference(const Baseline::Difference& difference);
    void PlanTree(const std::string& path);
    void PlanObject(std::size_t entry);
    void PlanDirectoriesAbove(const std::string& part);
    void PlanTimes(const std::string& part);
    bool FindContent(const Baseline::ManifestEntry& entry, std::size_t& run) const;
    Result Problem() const;

    int CarryOut(const Step& step);
    int MakeDirectory(const Step& step, const SDK::PathAnchor::Entry& copy);
    int PutBack(const Step& step, const SDK::PathAnchor::Entry& copy);

    const AnchoredRule& rule_;
    const RuleBaselines::Known wanted_;
    ReplacedCopies& replaced_;
    const std::function<bool()> is_over_;
    const RsyncExclusions present_exclusions_;
    const RsyncExclusions former_exclusions_;
    const std::vector<std::unique_ptr<SDK::PathAnchor>> runs_;
    std::vector<Step> steps_;
    std::set<std::string> planned_;  ///< paths that need no look at their time
    std::vector<std::string> lost_;  ///< the first paths whose content is nowhere
    std::size_t lost_count_ = 0;
};

}  // namespace Engine
