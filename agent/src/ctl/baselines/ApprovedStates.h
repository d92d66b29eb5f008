#pragma once

#include <baseline/BaselineStore.h>

#include <string>
#include <vector>

namespace Ctl {

/// A part of an approved state.
struct ApprovedPart {
    Baseline::Generation generation;  ///< with a manifest
    std::string below;                ///< relative to the protected path; "" is all of it
};

/// The newest approved state of each protected path of this installation. Reads and checks them,
/// and writes nothing. Not thread-safe.
class ApprovedStates {
  public:
    /// Below the installation path.
    static std::string DefaultDirectory();

    explicit ApprovedStates(std::string directory = DefaultDirectory());

    const Baseline::BaselineStore& Store() const { return store_; }

    /// Null manifests are left out; ordered by the protected path.
    const std::vector<Baseline::Generation>& Newest() const { return newest_; }

    struct Choice {
        std::vector<Baseline::Generation> states;
        std::vector<std::string> left_out;      ///< paths that the policy does not name
        std::vector<std::string> not_approved;  ///< paths of the policy without a usable state
    };
    /// The states of the paths that the policy names, or all when it does not tell.
    Choice Protected() const;

    /// The policy tells what is protected, and `root`, a LiveRoot, is not.
    static bool HasLeftThePolicy(const std::string& root);

    /// The directory and its key are there, so that Store() can be read without writing.
    bool IsReadable() const { return is_readable_; }

    /// Sentences: why there is nothing, or which manifests cannot be used.
    const std::vector<std::string>& Problems() const { return problems_; }

    /// `path`, which may be relative, as the agent names objects. Links in a protected path are
    /// never followed, those that lead to one are.
    std::string Resolve(const std::string& path) const;

    /// The states that hold `path` or lie below it. `path` comes from Resolve.
    std::vector<ApprovedPart> Holding(const std::string& path) const;

  private:
    void Open();
    /// The path as the agent names it; empty when no protected path holds it.
    std::string Renamed(const std::string& canonical) const;

    const std::string directory_;
    const Baseline::BaselineStore store_;
    bool is_readable_ = false;
    std::vector<Baseline::Generation> newest_;
    std::vector<std::string> problems_;
};

/// The protected path or its copies, without a trailing "/".
std::string LiveRoot(const Baseline::ManifestInfo& info);
std::string CopyRoot(const Baseline::ManifestInfo& info);

/// `below` or a directory above it is not protected because of an exclusion.
bool IsExcluded(const Baseline::ManifestInfo& info, const std::string& below);

}  // namespace Ctl
