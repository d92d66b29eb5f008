#pragma once

#include <sdk/files/FileDescriptor.h>

#include <map>
#include <string>
#include <utility>
#include <vector>

namespace Ctl {

/// Where a deploy works, as the agent says.
struct OverlayPlan {
    std::string root;       ///< the protected directory
    std::string copies;     ///< its approved state: the lower layer, which only root can change
    std::string directory;  ///< of the deploy, with "upper", "work" and "tree"
    std::vector<std::string> subdirectories;  ///< excluded; shown as they are on the site
};

/// An overlay in which a protected directory can be changed without changing the site: it shows the
/// approved state, and keeps what is changed. The excluded directories are those of the site. Not
/// thread-safe. Operations return a sentence when they fail.
class Overlay {
  public:
    explicit Overlay(OverlayPlan plan) : plan_(std::move(plan)) {}

    /// A mount below the protected directory, other than in an excluded directory; empty: none.
    static std::string ForeignMount(const OverlayPlan& plan);

    /// Mounts it over the protected directory, in a mount namespace of the caller's own, or at the
    /// deploy's "tree", for all.
    std::string MountOverRoot() const { return MountAt(plan_.root); }
    std::string MountAtTree() const { return MountAt(plan_.directory + "/tree"); }

    std::string UnmountTree() const { return Unmount(plan_.directory + "/tree"); }
    /// The tree goes at once, also while somebody uses it.
    void DetachTree() const;

    /// Unmounts it from there. Nothing to unmount is no failure. Fails while somebody holds an
    /// object of it open: that one could go on writing.
    std::string Unmount(const std::string& place) const;

  private:
    using Excluded = std::map<std::string, SDK::FileDescriptor>;

    std::string MountAt(const std::string& place) const;
    std::string Mount(const std::string& place) const;
    std::string ShowExcluded(const std::string& place, const Excluded& excluded) const;
    Excluded OpenExcluded() const;
    void DetachExcluded(const std::string& place) const;

    const OverlayPlan plan_;
};

}  // namespace Ctl
