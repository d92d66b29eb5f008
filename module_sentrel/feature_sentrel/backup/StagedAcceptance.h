#pragma once

#include <baseline/StagedChanges.h>
#include <sdk/files/FileDescriptor.h>
#include <sdk/files/PathAnchor.h>

#include <functional>
#include <string>
#include <vector>

#include "places/RuleAnchors.h"

namespace Engine {

class ReplacedCopies;

/// Makes what a deploy has staged part of the backup copies, in two steps: Prepare copies all of it
/// beside the copies and may fail for many reasons; Take only renames and removes. Carrying it out
/// again after a crash in Take completes it. By held descriptors. For one use; backup task's
/// thread.
class StagedAcceptance {
  public:
    /// The first three are borrowed; `replaced` takes what leaves the copies. `name` is a name for
    /// the directory of prepared objects. `is_over` is asked often; true ends Prepare.
    StagedAcceptance(const AnchoredRule& rule, const SDK::PathAnchor& staged,
                     ReplacedCopies& replaced, std::string name, std::function<bool()> is_over);
    ~StagedAcceptance();
    StagedAcceptance(const StagedAcceptance&) = delete;
    StagedAcceptance& operator=(const StagedAcceptance&) = delete;

    /// A sentence when it cannot be done; the copies are as they were then.
    std::string Prepare();

    /// A sentence when a part failed; the others were taken all the same.
    std::string Take();

    /// What changes, in the order in which it is to be put on the site: what is added comes before
    /// what uses it, and removals come last. Paths relative to the protected path.
    std::vector<std::string> Paths() const;
    /// Staged objects that are not protected.
    const std::vector<std::string>& Ignored() const { return found_.ignored; }

  private:
    using Difference = Baseline::Difference;

    std::string PrepareOne(const Difference& change, const std::string& number);
    int PrepareTree(const Difference& change, int directory, const std::string& name);
    int TakeOne(const Difference& change, const std::string& number);
    int TakeAttributes(const std::string& path);
    int PutInPlace(int from, const SDK::PathAnchor::Entry& copy, const std::string& below);
    SDK::PathAnchor::Entry Staged(const std::string& path) const;
    std::string PathOf(const std::string& below) const;

    const AnchoredRule& rule_;
    const SDK::PathAnchor& staged_;
    ReplacedCopies& replaced_;
    const std::string name_;
    const std::function<bool()> is_over_;
    Baseline::StagedChanges::Result found_;
    SDK::FileDescriptor scratch_;
    SDK::FileDescriptor prepared_;
};

/// Removes the overlay's attributes from a staged object and, of a directory, from all below it.
void RemoveOverlayMarks(const SDK::PathAnchor& staged, const std::string& path);

}  // namespace Engine
