#pragma once

#include <framework/FeaturePolicy.h>

#include <string>

namespace Engine {

/// Turns a backup-server policy into settings (SentrelUtils) and a fresh daemon configuration;
/// leaves the daemon stopped. Framework thread, with the module's gate held alone.
class BackUpServerPolicy : public Framework::FeaturePolicy {
  public:
    explicit BackUpServerPolicy(const std::string& name);

    /// True when the document was accepted and the configuration written. Blocks for up to 13
    /// seconds while a running daemon is stopped.
    bool Parse(const std::string& text) override;

    /// Writes conf/morvane_rsync.conf from the settings. On false there is no such file.
    bool WriteRsyncConf();
    /// The configured address is one of this host's.
    bool GetIpExist();
};

/// The empty task policy of the backup server task.
class BackUpServerTaskPolicy : public Framework::TaskPolicy {
  public:
    explicit BackUpServerTaskPolicy(const std::string& name);
    bool Parse(const std::string& text) override;
};

}  // namespace Engine
