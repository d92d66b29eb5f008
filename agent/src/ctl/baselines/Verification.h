#pragma once

#include <baseline/TreeVerifier.h>

#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "ctl/baselines/ApprovedStates.h"
#include "ctl/baselines/DifferenceFormat.h"
#include "ctl/baselines/DifferenceList.h"
#include "ctl/baselines/ProgressDisplay.h"

namespace Ctl {

/// Compares parts of approved states with the site, or with the backup copies. Changes nothing. For
/// one use; only Progress is thread-safe.
class Verification {
  public:
    struct Options {
        Baseline::TreeVerifier::Side side = Baseline::TreeVerifier::Side::kLive;
        bool full = false;
        unsigned int threads = 1;
        std::function<bool()> is_over;  ///< asked often, on several threads
    };

    /// Borrows `list`, which receives the differences.
    Verification(std::vector<ApprovedPart> parts, Options options, DifferenceList& list);

    /// Blocks. False, with sentences in Problems, when something could not be compared.
    bool Run();

    const std::vector<std::string>& Problems() const { return problems_; }
    Effort Spent() const;
    ComparisonProgress Progress() const;

  private:
    void Compare(const ApprovedPart& part);
    void CompareTree(const ApprovedPart& part, const std::string& root,
                     const SDK::PathAnchor& anchor);
    void RunVerifier(Baseline::TreeVerifier::Request request);
    void AddRootFault(const ApprovedPart& part, const std::string& root, int error);

    const std::vector<ApprovedPart> parts_;
    const Options options_;
    DifferenceList& list_;
    std::size_t total_ = 0;
    double seconds_ = 0;
    std::vector<std::string> problems_;
    mutable std::mutex mutex_;  ///< guards the two below
    const Baseline::TreeVerifier* running_ = nullptr;
    Effort done_;
};

}  // namespace Ctl
