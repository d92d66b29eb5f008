#pragma once

#include <optional>
#include <string>
#include <vector>

namespace Engine {

/// One of the module's local rsync commands, as its arguments tell it.
struct RsyncLine {
    bool is_backup = false;
    std::vector<std::string> exclusions;  ///< patterns
    std::string source;
    std::string target;

    /// None: another command than those of a local backup or restore.
    static std::optional<RsyncLine> Of(const std::vector<std::string>& arguments);

    /// The arguments again, with other places.
    std::vector<std::string> With(const std::string& program, const std::string& scratch,
                                  const std::string& new_source,
                                  const std::string& new_target) const;
};

/// Which objects rsync leaves alone on both sides because of these patterns. Knows the plain ones:
/// a name, a path's end, and a star before a name's ending. Immutable; any thread.
class RsyncExclusions {
  public:
    explicit RsyncExclusions(const std::vector<std::string>& patterns);

    /// False: a pattern is none of the plain ones, so only rsync itself can tell.
    bool ArePlain() const { return are_plain_; }

    /// `path` is absolute, without a trailing "/".
    bool Match(const std::string& path, bool is_directory) const;

  private:
    struct Name {
        std::string text;  ///< a name, or the last components of a path
        bool directories_only = false;
    };

    bool are_plain_ = true;
    std::vector<std::string> endings_;
    std::vector<Name> names_;
};

}  // namespace Engine
