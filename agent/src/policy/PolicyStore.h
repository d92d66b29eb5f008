#pragma once

#include <string>
#include <vector>

namespace Agent {

/// True for 1 to 64 characters of letters, digits, "_", "-" and ".", not beginning with ".": a
/// name that can be part of a file name and of a URL.
bool IsFeatureName(const std::string& name);

/// Keeps the last good policy of each feature, one file each, as the text that was given. Any
/// thread; the callers see to it that one feature is written by one thread at a time.
class PolicyStore {
  public:
    /// `directory` is made (0700) when the first policy is kept.
    explicit PolicyStore(const std::string& directory);

    /// Replaces the kept policy in one step; after a failure or a crash the old one is still
    /// there. False with `error`.
    bool Save(const std::string& feature, const std::string& text, std::string& error) const;

    /// False when none is kept, or it cannot be read.
    bool Load(const std::string& feature, std::string& text) const;

    /// The features with a kept policy, sorted. What else lies in the directory is ignored.
    std::vector<std::string> Features() const;

  private:
    std::string FileOf(const std::string& feature) const;

    const std::string directory_;
};

}  // namespace Agent
