#pragma once

#include <vector>

namespace Bench {

/// The value below which the share `part` (0 to 1) of the samples lies, by nearest rank, so always
/// one that was measured; the median of an even number is the mean of the middle two. 0 for none.
double Percentile(std::vector<double> samples, double part);
double Median(std::vector<double> samples);

}  // namespace Bench
