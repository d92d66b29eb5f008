#include "progress/OpenObjects.h"

#include <algorithm>
#include <iterator>

namespace Engine {

namespace {

/// `path` is `directory` or lies below it; "" holds everything.
bool IsIn(std::string_view path, std::string_view directory) {
    if (directory.empty()) return true;
    if (path.substr(0, directory.size()) != directory) return false;
    return path.size() == directory.size() || path[directory.size()] == '/';
}

std::string_view ParentOf(std::string_view below) {
    const std::size_t slash = below.rfind('/');
    return slash == std::string_view::npos ? std::string_view() : below.substr(0, slash);
}

}  // namespace

bool OpenObjects::ByComponent::operator()(std::string_view a, std::string_view b) const {
    const auto rank = [](char c) { return c == '/' ? 0 : static_cast<unsigned char>(c); };
    const auto [x, y] = std::mismatch(a.begin(), a.end(), b.begin(), b.end());
    if (x == a.end() || y == b.end()) return y != b.end();
    return rank(*x) < rank(*y);
}

void OpenObjects::Add(const std::string& below, int error) {
    if (CoversObject(below) || IsInCollapsed(below)) return;
    bool only_direct = true;
    Absorb(objects_, below, only_direct);
    const bool fits =
        Size() < capacity_ && bytes_ + below.size() <= kMostBytes && below.size() <= kLongestPath;
    if (!fits) {
        Collapse(below);
    } else if (objects_.emplace(below, error).second) {
        bytes_ += below.size();
    }
}

void OpenObjects::Remove(const std::string& below) {
    if (objects_.erase(below) + directories_.erase(below) > 0) bytes_ -= below.size();
}

void OpenObjects::Merge(const OpenObjects& other) {
    for (const auto& [below, extent] : other.directories_) {
        const auto [known, is_new] = directories_.emplace(below, extent);
        if (is_new) bytes_ += below.size();
        known->second = std::max(known->second, extent);
    }
    for (const auto& [below, error] : other.objects_) Add(below, error);
}

/// Adds the nearest directory above that replaces at least one entry, so that the set does not
/// grow.
void OpenObjects::Collapse(std::string_view below) {
    std::string_view directory = ParentOf(below);
    while (!directory.empty() && (directory.size() > kLongestPath || !HasAnyIn(directory))) {
        directory = ParentOf(directory);
    }
    bool only_direct = ParentOf(below) == directory;
    Absorb(objects_, directory, only_direct);
    Absorb(directories_, directory, only_direct);
    directories_[std::string(directory)] = only_direct ? Extent::kNewNames : Extent::kNewNamesBelow;
    bytes_ += directory.size();
}

/// Removes the entries in `directory`. Clears `only_direct` when one lay deeper than directly in
/// it.
template <class Map>
std::size_t OpenObjects::Absorb(Map& map, std::string_view directory, bool& only_direct) {
    const std::size_t before = map.size();
    auto entry = map.lower_bound(directory);
    while (entry != map.end() && IsIn(entry->first, directory)) {
        if (ParentOf(entry->first) != directory) only_direct = false;
        bytes_ -= entry->first.size();
        entry = map.erase(entry);
    }
    return before - map.size();
}

bool OpenObjects::CoversObject(std::string_view below) const {
    auto after = objects_.upper_bound(below);
    return after != objects_.begin() && IsIn(below, std::prev(after)->first);
}

/// Without looking at the copy: an added object itself is known to have none.
bool OpenObjects::IsInCollapsed(std::string_view below) const {
    return !directories_.empty() &&
           Covers(below, [&](const std::string& one) { return one != below; });
}

bool OpenObjects::Covers(std::string_view below, const HasCopy& has_copy) const {
    if (CoversObject(below)) return true;
    if (directories_.empty()) return false;
    for (std::size_t end = 0; end < below.size();) {
        const std::size_t begin = end == 0 ? 0 : end + 1;
        const std::size_t next = std::min(below.find('/', begin), below.size());
        const auto found = directories_.find(below.substr(0, end));
        end = next;
        if (found == directories_.end()) continue;
        const bool is_deep = found->second == Extent::kNewNamesBelow;
        if (!has_copy(std::string(is_deep ? below : below.substr(0, next)))) return true;
    }
    return false;
}

bool OpenObjects::HasAnyIn(std::string_view below) const {
    const auto object = objects_.lower_bound(below);
    if (object != objects_.end() && IsIn(object->first, below)) return true;
    const auto directory = directories_.lower_bound(below);
    return directory != directories_.end() && IsIn(directory->first, below);
}

std::vector<OpenObjects::Entry> OpenObjects::Entries(std::size_t most) const {
    std::vector<Entry> entries;
    for (const auto& [below, error] : objects_) {
        if (entries.size() == most) return entries;
        entries.push_back({below, error});
    }
    for (const auto& [below, extent] : directories_) {
        if (entries.size() == most) return entries;
        entries.push_back({below, 0});
    }
    return entries;
}

}  // namespace Engine
