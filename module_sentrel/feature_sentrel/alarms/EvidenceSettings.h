#pragma once

#include <evidence/EvidenceStore.h>

#include <string>
#include <vector>

namespace Engine {

/// What is kept of changed objects, and what alarms may show. Settings of the section "sentrel" in
/// conf/agent.json.
struct EvidenceSettings {
    bool is_kept = true;           ///< "evidence_mb" above 0
    Evidence::Limits limits = {};  ///< "evidence_mb", "evidence_days"
    /// "secret_files": patterns of names; with a "/" they are patterns of whole paths.
    std::vector<std::string> secret_files = {
        ".env",    ".env.*",    "wp-config.php", "settings.php", "configuration.php",
        "*.key",   "*.pem",     "*.p12",         "id_*",         ".htpasswd",
        ".my.cnf", "auth.json", "credentials*",  "secrets.*"};

    static EvidenceSettings Read();

    /// The content of that file must not be in an alarm.
    bool IsSecret(const std::string& path) const;

    /// The directory of the installation that holds the evidence.
    static std::string Directory();
};

}  // namespace Engine
