// Owns: nothing. Must not own: pending changes (Delivery). Thread: the task's.
// Ownership passes: Deliver hands each change to Delivery.

#include "changes/ChangeRouter.h"

#include <sys/inotify.h>

#include <algorithm>
#include <utility>

namespace Engine::FileNotify {

void ChangeRouter::Announce(ObjectRef object, std::uint32_t mask, ObjectRef moved_to) {
    matcher_.Covering(*object.dir, object.name, hits_);
    for (const WatchMatcher::Hit& hit : hits_) {
        if ((hit.watch->request.mask & mask & IN_ALL_EVENTS) == 0) continue;
        std::string moveto;
        if (moved_to.dir != nullptr) moveto = MoveTarget(*hit.watch, moved_to);
        Deliver(*hit.watch, WatchMatcher::PathFor(hit, *object.dir, object.name), std::move(moveto),
                mask);
    }
}

void ChangeRouter::AnnounceDirectory(const DirNode& dir, std::uint32_t mask) {
    if (dir.parent == nullptr) {
        Announce({&dir, {}}, mask | IN_ISDIR);
    } else {
        Announce({dir.parent, dir.name}, mask | IN_ISDIR);
    }
}

void ChangeRouter::AnnounceRoot(const Watch& watch, std::uint32_t mask) {
    if (!watch.ended) Deliver(watch, watch.Id(), {}, mask);
}

void ChangeRouter::AnnounceKindChange(const DirNode& dir, std::string_view name,
                                      bool is_directory) {
    WatchMatcher::Hits hits;
    matcher_.Covering(dir, name, hits);
    for (const WatchMatcher::Hit& hit : hits) {
        if (hit.root == nullptr) {
            AnnounceRoot(*hit.watch, is_directory ? IN_ATTRIB | IN_ISDIR : IN_ATTRIB);
            continue;
        }
        const WatchMatcher::Hit parent{hit.watch, hit.root == &dir ? nullptr : hit.root};
        const DirNode& holder = dir.parent != nullptr ? *dir.parent : dir;
        Deliver(*hit.watch, WatchMatcher::PathFor(parent, holder, dir.name), {},
                IN_ATTRIB | IN_ISDIR);
    }
}

void ChangeRouter::Deliver(const Watch& watch, std::string path, std::string moveto,
                           std::uint32_t mask) {
    const std::uint32_t asked = mask & watch.request.mask & IN_ALL_EVENTS;
    if (asked == 0) return;
    const bool is_directory = (mask & IN_ISDIR) != 0;
    if (is_directory && !watch.request.report_directories) return;
    if (!is_directory && HasExcludedSuffix(watch, path)) return;
    delivery_.Add({watch.request.subscription, std::move(path), std::move(moveto),
                   asked | (mask & IN_ISDIR), time_});
}

bool ChangeRouter::HasExcludedSuffix(const Watch& watch, std::string_view path) {
    const std::string_view name = path.substr(path.rfind('/') + 1);
    const auto& suffixes = watch.request.excluded_suffixes;
    return std::any_of(suffixes.begin(), suffixes.end(), [&](const std::string& suffix) {
        return name.size() >= suffix.size() && name.substr(name.size() - suffix.size()) == suffix;
    });
}

std::string ChangeRouter::MoveTarget(const Watch& watch, const ObjectRef& target) const {
    WatchMatcher::Hits hits;
    matcher_.Covering(*target.dir, target.name, hits);
    if (hits.empty()) return {};
    const auto same = std::find_if(hits.begin(), hits.end(), [&](const WatchMatcher::Hit& hit) {
        return hit.watch == &watch;
    });
    return WatchMatcher::PathFor(same == hits.end() ? hits.front() : *same, *target.dir,
                                 target.name);
}

}  // namespace Engine::FileNotify
