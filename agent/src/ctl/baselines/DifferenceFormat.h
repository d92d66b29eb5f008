#pragma once

#include <json/value.h>

#include <iosfwd>
#include <string>

#include "ctl/baselines/DifferenceList.h"

namespace Ctl {

/// How far a comparison came, and how long it took.
struct Effort {
    std::size_t objects = 0;
    std::uint64_t bytes = 0;
    double seconds = 0;
};

/// "changed", "attributes", "added" or "missing".
const char* KindName(Baseline::Difference::Kind kind);

/// One readable line with a line end: kind, path, detail.
std::string FormatDifference(const FoundDifference& found);

/// For programs: kind, path, detail, is_directory; path_bytes (percent-encoded) where the path is
/// no UTF-8.
Json::Value DifferenceObject(const FoundDifference& found);

/// Writes all that is kept, and how many were left out, as text or as one JSON object a line.
void WriteDifferences(std::ostream& out, const DifferenceList& list, bool json);

/// "3 differences: 1 changed, 2 added", or "equal".
std::string CountsOf(const DifferenceList& list);

/// The counts and the effort in one line, as text or as a JSON object.
std::string FormatSummary(const DifferenceList& list, const Effort& effort, bool json);

/// "512.3 MB".
std::string FormatBytes(double bytes);

}  // namespace Ctl
