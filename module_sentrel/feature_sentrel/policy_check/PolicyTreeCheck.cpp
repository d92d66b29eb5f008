// Searches the protected trees for names that exclusions match by accident. It must not read files
// or change anything. Stateless; any thread.
#include "feature_sentrel/policy_check/PolicyTreeCheck.h"

#include <filesystem>
#include <string>

namespace Engine {

namespace {

namespace fs = std::filesystem;

constexpr std::size_t kMaxScannedNames = 20000;

/// Names with the same fault; the first one as an example.
struct Hits {
    std::size_t count = 0;
    std::string example;

    void Add(const std::string& name) {
        if (count++ == 0) example = name;
    }
    void Tell(const ProtectedPlace& place, const std::string& fault,
              PolicyFindings& findings) const {
        if (count == 0) return;
        findings.Warning(PointerTo(place.pointer, "filepath"),
                         std::to_string(count) + " names " + fault + ", such as " + example);
    }
};

struct Faults {
    Hits same_start;
    Hits same_name;
};

/// True when there is no need to look below the name.
bool Judge(const ProtectedPlace& place, const std::string& name, Faults& faults) {
    if (place.IsMeantByExclusion(name)) return true;
    if (place.IsExcluded(name)) {
        faults.same_start.Add(name);
        return true;
    }
    if (!place.IsKeptFromBackup(name)) return false;
    faults.same_name.Add(name);
    return true;
}

void Scan(const ProtectedPlace& place, std::size_t& budget, PolicyFindings& findings) {
    std::error_code error;
    Faults faults;
    fs::recursive_directory_iterator at(place.path, fs::directory_options::skip_permission_denied,
                                        error);
    for (; !error && at != fs::recursive_directory_iterator() && budget > 0; at.increment(error)) {
        --budget;
        if (Judge(place, at->path().string(), faults)) at.disable_recursion_pending();
    }
    faults.same_start.Tell(place, "are left alone because they begin like an excluded subdirectory",
                           findings);
    faults.same_name.Tell(place,
                          "are protected but never backed up, because they are named like an "
                          "excluded subdirectory",
                          findings);
}

}  // namespace

void CheckNamesBelow(const std::vector<ProtectedPlace>& places, PolicyFindings& findings) {
    std::size_t budget = kMaxScannedNames;
    for (const ProtectedPlace& place : places) Scan(place, budget, findings);
}

}  // namespace Engine
