#pragma once

#include <string>
#include <vector>

namespace Agent {

/// True for 1 to 64 letters, digits, "_", "-" and ".", not beginning with ".": a name that is safe
/// in a file name and in a URL.
bool IsFeatureName(const std::string& name);

/// Stores the last good policy of each feature, one file each, as the given text. Thread-safe as
/// long as one thread at a time writes a feature; the callers ensure that.
class PolicyStore {
  public:
    /// `directory` is created (0700) with the first policy.
    explicit PolicyStore(const std::string& directory);

    /// Replaces the stored policy in one step; after a failure or a crash the old one remains.
    /// False with `error`.
    bool Save(const std::string& feature, const std::string& text, std::string& error) const;

    /// False when none is stored or it cannot be read.
    bool Load(const std::string& feature, std::string& text) const;

    /// The features with a stored policy, sorted. Other files in the directory are ignored.
    std::vector<std::string> Features() const;

  private:
    std::string FileOf(const std::string& feature) const;

    const std::string directory_;
};

}  // namespace Agent
