#include "ctl/baselines/DifferenceList.h"

#include <iterator>
#include <numeric>
#include <utility>

namespace Ctl {

std::string FoundDifference::Path() const {
    if (difference.path.empty()) return root;
    return (root == "/" ? "" : root) + "/" + difference.path;
}

bool FoundDifference::operator<(const FoundDifference& other) const {
    if (root != other.root) return root < other.root;
    const int order = Baseline::ComparePaths(difference.path, other.difference.path);
    return order != 0 ? order < 0 : difference.kind < other.difference.kind;
}

void DifferenceList::Add(FoundDifference found) {
    ++counts_.at(static_cast<std::size_t>(found.difference.kind));
    kept_.insert(std::move(found));
    if (limit_ != 0 && kept_.size() > limit_) kept_.erase(std::prev(kept_.end()));
}

std::size_t DifferenceList::Total() const {
    return std::accumulate(counts_.begin(), counts_.end(), std::size_t{0});
}

}  // namespace Ctl
