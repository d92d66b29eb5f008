#pragma once

#include <baseline/Manifest.h>
#include <json/value.h>
#include <sdk/files/PathAnchor.h>

#include <memory>
#include <string>
#include <vector>

namespace Sentry {

/// What happens to an open of a page that is not as approved.
enum class ShieldMode {
    kMonitor,  ///< it is let through and counted
    kHeal,     ///< the page is put right first; what cannot be put right is refused
    kDeny,     ///< it is refused
};

/// One shielded directory, as the agent describes it. Immutable.
struct ShieldRule {
    std::string real_path;  ///< ends in "/"
    std::string root;       ///< the same without it
    std::string backup_path;
    ShieldMode mode = ShieldMode::kMonitor;
    unsigned int generation = 0;
    std::vector<std::string> prefixes;  ///< full paths that begin with one are not guarded
    std::vector<std::string> suffixes;  ///< names that end with one are not guarded
    /// The approved state. Its signature was checked.
    std::shared_ptr<const Baseline::Manifest> manifest = nullptr;
    std::shared_ptr<const SDK::PathAnchor> copies = nullptr;  ///< the backup path

    /// Reads {"path","backup","mode","generation","prefixes","suffixes"}; texts but the mode
    /// are percent-encoded. Null, with `error` in words, when it cannot be used.
    static std::shared_ptr<const ShieldRule> Read(const Json::Value& given,
                                                  const std::string& baselines, std::string& error);

    /// A directory in which nothing is guarded. `directory` ends in "/".
    bool IsLeftOut(const std::string& directory) const;

    /// A file in a guarded directory that is not guarded itself.
    bool IsIgnored(const std::string& file) const;

    /// Reads "held": objects that an operator decides about, with all below them, relative and
    /// percent-encoded. They are not guarded.
    static std::vector<std::string> ReadHeld(const Json::Value& given);
};

}  // namespace Sentry
