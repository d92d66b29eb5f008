#pragma once

#include <string>
#include <vector>

#include "report/Results.h"

namespace Bench {

/// A limit compared with the measured value.
struct Verdict {
    std::string what;
    std::string ours;   ///< the measured value with its unit
    std::string limit;  ///< the limit with its unit
    double share = 0;   ///< value divided by limit; met up to 1
    bool met = false;
};

/// The presentation of a row.
struct RowTitle {
    const char* row;
    const char* title;
    const char* unit;
    const char* base;  ///< the product with ratio 1; empty: no ratios
};

const std::vector<RowTitle>& RowTitles();

/// Evaluates the limits for which both sides were measured. `busy`: only the limits that also apply
/// to a busy machine, with their factor for it.
std::vector<Verdict> Evaluate(const Results& results, bool busy = false);

/// The value with a suitable number of digits and its unit.
std::string Figure(double value, const std::string& unit);

}  // namespace Bench
