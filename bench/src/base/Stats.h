#pragma once

#include <vector>

namespace Bench {

/// The percentile `part` (0 to 1) by nearest rank, so always a measured value. The median of an
/// even number of samples is the mean of the middle two. 0 without samples.
double Percentile(std::vector<double> samples, double part);
double Median(std::vector<double> samples);

}  // namespace Bench
