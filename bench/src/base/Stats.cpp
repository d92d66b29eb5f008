#include "base/Stats.h"

#include <algorithm>
#include <cmath>

namespace Bench {

double Percentile(std::vector<double> samples, double part) {
    if (samples.empty()) return 0;
    std::sort(samples.begin(), samples.end());
    const double rank = std::ceil(part * static_cast<double>(samples.size()));
    const auto index = static_cast<std::size_t>(std::max(1.0, rank)) - 1;
    return samples[std::min(index, samples.size() - 1)];
}

double Median(std::vector<double> samples) {
    if (samples.empty()) return 0;
    std::sort(samples.begin(), samples.end());
    const std::size_t middle = samples.size() / 2;
    if (samples.size() % 2 == 1) return samples[middle];
    return (samples[middle - 1] + samples[middle]) / 2;
}

}  // namespace Bench
