#pragma once

#include <string>
#include <vector>

namespace SDK {

/// Matches paths with exclusion patterns as rsync does, wildcards included. Immutable; thread-safe.
class ExclusionPatterns {
  public:
    /// Each pattern as in rsync's --exclude. An empty one matches nothing.
    explicit ExclusionPatterns(const std::vector<std::string>& patterns);

    /// `path` is absolute, without a trailing "/". The caller does not ask for what lies below an
    /// excluded directory.
    bool Match(const std::string& path, bool is_directory) const;

  private:
    struct Pattern {
        std::string text;               ///< without a leading and a trailing "/"
        bool is_anchored = false;       ///< it began with "/": matches the whole path only
        bool directories_only = false;  ///< it ended with "/"
        bool is_wild = false;
        bool crosses_directories = false;  ///< "**" matches "/", too
        std::size_t slashes = 0;
    };

    static Pattern Read(const std::string& text);
    static bool Matches(const Pattern& pattern, const std::string& path);

    std::vector<Pattern> patterns_;
};

}  // namespace SDK
