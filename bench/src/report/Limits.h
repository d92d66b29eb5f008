#pragma once

#include <string>
#include <vector>

#include "report/Results.h"

namespace Bench {

/// One promise held against the figures.
struct Verdict {
    std::string what;
    std::string ours;   ///< the figure, with its unit
    std::string limit;  ///< what it is held against, likewise
    double share = 0;   ///< ours divided by the limit; up to 1 is met
    bool met = false;
};

/// How a row is shown.
struct RowTitle {
    const char* row;
    const char* title;
    const char* unit;
    const char* base;  ///< the guard whose median is 1 in the column of ratios; empty: none
};

const std::vector<RowTitle>& RowTitles();

/// Those for which both sides were measured. `busy`: only those that also hold while others keep
/// the processors busy, as they are then.
std::vector<Verdict> Judge(const Results& results, bool busy = false);

/// With as many digits as it needs.
std::string Figure(double value, const std::string& unit);

}  // namespace Bench
