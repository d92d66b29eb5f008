// Owns: the watches, and where each is attached. Must not own: the nodes (NameIndex), nor the
// resolving of paths (RootTracker). Thread: the task's. Ownership passes: never.

#include "tree/WatchMatcher.h"

#include <sys/inotify.h>

#include <algorithm>

#include "index/NameIndex.h"

namespace Engine::FileNotify {

namespace {

// The index itself needs these events, whatever a receiver requests.
constexpr std::uint32_t kIndexMask = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO |
                                     IN_DELETE_SELF | IN_MOVE_SELF | IN_EXCL_UNLINK;

/// The kernel reports no write through a mapping, but the end of the mapping closes the file.
std::uint32_t KernelEvents(const WatchRequest& request) {
    const std::uint32_t mask = request.mask & IN_ALL_EVENTS;
    return (mask & IN_MODIFY) != 0 ? mask | IN_CLOSE_WRITE : mask;
}

}  // namespace

Watch& WatchMatcher::Add(std::unique_ptr<Watch> watch) {
    watches_.push_back(std::move(watch));
    return *watches_.back();
}

void WatchMatcher::Remove(Watch& watch) {
    Detach(watch);
    watches_.erase(std::find_if(watches_.begin(), watches_.end(),
                                [&](const auto& one) { return one.get() == &watch; }));
}

Watch* WatchMatcher::Find(const Subscription* subscription) const {
    for (const auto& watch : watches_) {
        if (watch->request.subscription.get() == subscription) return watch.get();
    }
    return nullptr;
}

void WatchMatcher::Attach(Watch& watch, DirNode* dir, std::size_t depth) {
    Detach(watch);
    watch.attach = dir;
    watch.depth = depth;
    watch.attached = true;
    attached_watches_[dir].push_back(&watch);
    if (dir != nullptr) dir->Set(DirNode::kHasAttached, true);
}

void WatchMatcher::Detach(Watch& watch) {
    if (!watch.attached) return;
    auto& there = attached_watches_[watch.attach];
    there.erase(std::remove(there.begin(), there.end(), &watch), there.end());
    if (there.empty()) {
        attached_watches_.erase(watch.attach);
        if (watch.attach != nullptr) watch.attach->Set(DirNode::kHasAttached, false);
    }
    watch.attach = nullptr;
    watch.attached = false;
}

std::vector<Watch*> WatchMatcher::AttachedFor(const DirNode* dir, std::string_view name) const {
    std::vector<Watch*> found;
    if (dir != nullptr && !dir->Is(DirNode::kHasAttached)) return found;
    const auto there = attached_watches_.find(dir);
    if (there == attached_watches_.end()) return found;
    for (Watch* watch : there->second) {
        if (watch->NextName() == name) found.push_back(watch);
    }
    return found;
}

void WatchMatcher::Covering(const DirNode& dir, std::string_view name, Hits& hits) const {
    hits.clear();
    const DirNode* root = nullptr;
    const DirNode* at = &dir;
    std::string_view child = name;
    if (name.empty()) {  // the directory "/" as an object
        CollectAt(nullptr, {}, nullptr, dir, name, hits);
        return;
    }
    while (at != nullptr) {
        if (at->Is(DirNode::kHasAttached)) CollectAt(at, child, root, dir, name, hits);
        // A tree above a link does not include what is behind the link.
        if (at->Is(DirNode::kThroughLink)) return;
        root = at;
        child = at->name;
        at = at->parent;
    }
    CollectAt(nullptr, {}, root, dir, name, hits);
}

void WatchMatcher::CollectAt(const DirNode* at, std::string_view child, const DirNode* root,
                             const DirNode& dir, std::string_view name, Hits& hits) const {
    const auto there = attached_watches_.find(at);
    if (there == attached_watches_.end()) return;
    for (Watch* watch : there->second) {
        if (!watch->AtParent() || watch->ended || watch->NextName() != child) continue;
        if (!watch->request.recursive && root != nullptr && root != &dir) continue;
        if (root != nullptr && !watch->request.excluded_subdirs.empty() &&
            IsExcluded(watch->request, NameIndex::PathBelow(root, dir, name))) {
            continue;
        }
        hits.push_back({watch, root});
    }
}

bool WatchMatcher::IsCovered(const DirNode& dir, std::string_view name) const {
    Hits hits;
    Covering(dir, name, hits);
    return !hits.empty();
}

bool WatchMatcher::IsWalked(const DirNode& dir) const {
    // A followed link on the path to a root is not part of a tree.
    if (dir.Is(DirNode::kThroughLink)) return false;
    return dir.parent == nullptr ? IsWalked(dir, {}) : IsWalked(*dir.parent, dir.name);
}

bool WatchMatcher::IsWalked(const DirNode& dir, std::string_view name) const {
    Hits hits;
    Covering(dir, name, hits);
    return std::any_of(hits.begin(), hits.end(), [](const Hit& hit) {
        return hit.root == nullptr || hit.watch->request.recursive;
    });
}

bool WatchMatcher::CoversAllIn(const DirNode& dir, std::uint32_t& mask) const {
    if (dir.parent == nullptr || dir.Is(DirNode::kHasAttached)) return false;
    Hits hits;
    Covering(*dir.parent, dir.name, hits);
    bool takes_all = false;
    mask = kIndexMask;
    for (const Hit& hit : hits) {
        mask |= KernelEvents(hit.watch->request);
        takes_all = takes_all || (hit.watch->request.recursive && !HasExclusionIn(hit, dir));
    }
    return takes_all;
}

bool WatchMatcher::HasExclusionIn(const Hit& hit, const DirNode& dir) {
    const auto& excluded = hit.watch->request.excluded_subdirs;
    if (excluded.empty()) return false;
    const std::string below =
        hit.root == nullptr ? std::string() : NameIndex::PathBelow(hit.root, dir, {}) + "/";
    return std::any_of(excluded.begin(), excluded.end(), [&](const std::string& one) {
        return one.compare(0, below.size(), below) == 0 &&
               one.find('/', below.size()) == std::string::npos;
    });
}

bool WatchMatcher::IsIgnored(const DirNode& dir) const {
    if (dir.parent == nullptr || dir.Is(DirNode::kThroughLink)) return false;
    Hits hits;
    Covering(*dir.parent, dir.name, hits);
    if (hits.empty() || !std::all_of(hits.begin(), hits.end(),
                                     [&](const Hit& hit) { return IsIgnoredBy(hit, dir); })) {
        return false;
    }
    return !IsOnPathToRoot(dir);
}

bool WatchMatcher::IsOnPathToRoot(const DirNode& dir) const {
    return std::any_of(watches_.begin(), watches_.end(), [&](const auto& watch) {
        return watch->attach != nullptr && NameIndex::IsWithin(*watch->attach, dir);
    });
}

bool WatchMatcher::IsIgnoredBy(const Hit& hit, const DirNode& dir) {
    const auto& prefixes = hit.watch->request.ignored_prefixes;
    if (prefixes.empty() || hit.root == nullptr) return false;
    const std::string inside = PathFor(hit, *dir.parent, dir.name) + "/";
    return std::any_of(prefixes.begin(), prefixes.end(), [&](const std::string& prefix) {
        return inside.compare(0, prefix.size(), prefix) == 0;
    });
}

std::uint32_t WatchMatcher::KernelMask(const DirNode& dir) const {
    std::uint32_t mask = kIndexMask;
    Hits hits;
    if (!dir.Is(DirNode::kThroughLink)) {
        Covering(dir.parent == nullptr ? dir : *dir.parent, dir.name, hits);
    }
    for (const Hit& hit : hits) mask |= KernelEvents(hit.watch->request);
    const auto there = attached_watches_.find(&dir);
    if (there == attached_watches_.end()) return mask;
    for (const Watch* watch : there->second) {
        // A root that is a file has no kernel watch of its own.
        if (watch->AtParent() && !(watch->root_present && watch->root_is_directory)) {
            mask |= KernelEvents(watch->request);
        }
    }
    return mask;
}

std::string WatchMatcher::PathFor(const Hit& hit, const DirNode& dir, std::string_view name) {
    const std::string& id = hit.watch->Id();
    if (hit.root == nullptr) return id;
    const std::string below = NameIndex::PathBelow(hit.root, dir, name);
    return id == "/" ? id + below : id + "/" + below;
}

bool WatchMatcher::IsExcluded(const WatchRequest& request, std::string_view path_below_root) {
    return std::any_of(request.excluded_subdirs.begin(), request.excluded_subdirs.end(),
                       [&](const std::string& excluded) {
                           return path_below_root.substr(0, excluded.size()) == excluded &&
                                  (path_below_root.size() == excluded.size() ||
                                   path_below_root[excluded.size()] == '/');
                       });
}

}  // namespace Engine::FileNotify
