#pragma once

#include <optional>
#include <string>
#include <vector>

namespace Engine {

/// One of the module's local rsync commands, read from its arguments.
struct RsyncLine {
    bool is_backup = false;
    std::vector<std::string> exclusions;  ///< patterns
    std::string source;
    std::string target;

    /// None when it is no command of a local backup or restore.
    static std::optional<RsyncLine> Of(const std::vector<std::string>& arguments);

    /// The arguments with other places. `scratch` takes unfinished files; empty: they lie beside
    /// the finished ones. `replaced` takes what a backup replaces or deletes; empty: nothing does.
    std::vector<std::string> With(const std::string& program, const std::string& scratch,
                                  const std::string& new_source, const std::string& new_target,
                                  const std::string& replaced = "") const;
};

}  // namespace Engine
