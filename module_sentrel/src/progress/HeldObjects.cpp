#include "progress/HeldObjects.h"

namespace Engine {

void HeldObjects::Add(const std::string& below, bool with_content) {
    const auto known = objects_.find(below);
    if (known != objects_.end()) {
        known->second = known->second || with_content;
    } else if (objects_.size() < capacity_) {
        objects_.emplace(below, with_content);
    } else {
        everything_ = true;
    }
}

void HeldObjects::Remove(std::string_view below) {
    if (below.empty()) {
        objects_.clear();
        everything_ = false;
        return;
    }
    auto first = objects_.lower_bound(below);
    auto last = first;
    while (last != objects_.end() && Baseline::IsWithin(last->first, below)) ++last;
    objects_.erase(first, last);
}

bool HeldObjects::Covers(std::string_view below) const {
    if (everything_ || objects_.count(below) > 0) return true;
    for (std::size_t slash = below.rfind('/'); slash != std::string_view::npos && slash > 0;
         slash = below.rfind('/', slash - 1)) {
        const auto above = objects_.find(below.substr(0, slash));
        if (above != objects_.end() && above->second) return true;
    }
    return false;
}

std::vector<std::string> HeldObjects::Paths(std::size_t most) const {
    std::vector<std::string> paths;
    for (const auto& [below, with_content] : objects_) {
        if (paths.size() >= most) break;
        paths.push_back(below);
    }
    return paths;
}

bool HeldObjects::HasAnyIn(std::string_view below) const {
    if (Covers(below)) return true;
    const auto first = objects_.lower_bound(below);
    return first != objects_.end() && Baseline::IsWithin(first->first, below);
}

}  // namespace Engine
