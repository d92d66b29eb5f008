// Owns the changes that wait for the first backup, bounded in number. It must not judge them
// (Rejudge has that done). Inotify task's thread.
#include "feature_sentrel/rejudge/PendingEvents.h"

#include <utility>

namespace Engine {

bool PendingEvents::Keep(const FileChange& event) {
    OfWatch& of_watch = watches_[event.watch_id];
    const auto known = of_watch.by_path.find(event.path);
    if (known != of_watch.by_path.end()) {
        known->second->raw_mask = MergedMask(known->second->raw_mask, event.raw_mask);
        return true;
    }
    if (size_ >= capacity_) return false;
    of_watch.events.push_back({event.path, WithoutMoves(event.raw_mask), event.read_time});
    const auto added = std::prev(of_watch.events.end());
    of_watch.by_path.emplace(added->path, added);
    ++size_;
    return true;
}

std::vector<FileChange> PendingEvents::Take(std::size_t limit,
                                            const std::function<bool(const std::string&)>& ready) {
    std::vector<FileChange> taken;
    for (auto& [watch_id, of_watch] : watches_) {
        if (of_watch.events.empty() || !ready(watch_id)) continue;
        while (!of_watch.events.empty() && taken.size() < limit) {
            Waiting& oldest = of_watch.events.front();
            of_watch.by_path.erase(oldest.path);
            taken.push_back({watch_id, std::move(oldest.path), oldest.raw_mask, oldest.read_time, 0,
                             ChangeOrigin::kRetry});
            of_watch.events.pop_front();
            --size_;
        }
    }
    return taken;
}

void PendingEvents::Clear() {
    watches_.clear();
    size_ = 0;
}

}  // namespace Engine
