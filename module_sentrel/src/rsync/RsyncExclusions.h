#pragma once

#include <string>
#include <vector>

#include "base/SentrelDirRule.h"

namespace Engine {

/// Which objects rsync leaves alone, on both sides, because of a rule's exclusions. Knows the
/// patterns as rsync does, wildcards included. Immutable; any thread.
class RsyncExclusions {
  public:
    explicit RsyncExclusions(const SentrelDirRule& rule);
    explicit RsyncExclusions(const std::vector<std::string>& patterns);

    /// `path` is absolute, without a trailing "/". What lies below an excluded directory is not
    /// asked for.
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

}  // namespace Engine
