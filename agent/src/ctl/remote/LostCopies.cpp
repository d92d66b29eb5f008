#include "ctl/remote/LostCopies.h"

#include <algorithm>
#include <map>

namespace Ctl {

using Baseline::Difference;
using Baseline::Manifest;

namespace {

/// Adds the object and all below it.
void AddTree(const Manifest& manifest, const std::string& path,
             std::map<std::size_t, bool>& entries) {
    for (std::size_t i = manifest.LowerBound(path); i < manifest.Size(); ++i) {
        const Baseline::ManifestEntry entry = manifest.At(i);
        if (!Baseline::IsWithin(entry.path, path)) return;
        if (!entry.IsOpen()) entries[i] = true;
    }
}

}  // namespace

std::vector<LostCopy> LostCopiesOf(const ApprovedPart& part, const DifferenceList& found) {
    const Manifest& manifest = *part.generation.manifest;
    const std::string root = CopyRoot(manifest.Info());
    std::map<std::size_t, bool> entries;
    for (const FoundDifference& one : found.Kept()) {
        const Difference& difference = one.difference;
        if (one.root != root || difference.kind == Difference::Kind::kAdded) continue;
        if (!Baseline::IsWithin(difference.path, part.below)) continue;
        const bool is_tree =
            difference.kind == Difference::Kind::kMissing || difference.detail == "type";
        const std::size_t index = manifest.LowerBound(difference.path);
        if (is_tree) {
            AddTree(manifest, difference.path, entries);
        } else if (index < manifest.Size() && manifest.At(index).path == difference.path) {
            entries[index] = entries[index] || difference.kind == Difference::Kind::kChanged;
        }
    }
    std::vector<LostCopy> lost;
    for (const auto& [entry, is_content] : entries) lost.push_back({entry, is_content});
    return lost;
}

}  // namespace Ctl
