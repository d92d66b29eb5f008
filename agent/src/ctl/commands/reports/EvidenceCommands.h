#pragma once

#include <cstddef>
#include <string>

namespace Ctl {

struct EvidenceListOptions {
    std::string path;  ///< empty: all
    std::size_t limit = 100;
    bool json = false;
};

// Each returns the exit code. They read the installation's directory and need no agent.
int ListEvidence(const EvidenceListOptions& options);
int ShowEvidence(const std::string& id);
int ExportEvidence(const std::string& id, const std::string& file);
/// -1 day: everything.
int PurgeEvidence(int older_than_days);

}  // namespace Ctl
