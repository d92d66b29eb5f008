#include <DeferredEvents.h>
#include <sys/inotify.h>

#include <utility>

namespace Engine {

namespace {

constexpr std::uint32_t kArrivalOrLoss = IN_CREATE | IN_DELETE;

}  // namespace

std::uint32_t WithoutMoves(std::uint32_t mask) {
    if ((mask & IN_MOVED_FROM) != 0) mask |= IN_DELETE;
    if ((mask & IN_MOVED_TO) != 0) mask |= IN_CREATE;
    return mask & ~static_cast<std::uint32_t>(IN_MOVED_FROM | IN_MOVED_TO);
}

bool DeferredEvents::Keep(const DeferredEvent& event) {
    const std::uint32_t raw_mask = WithoutMoves(event.raw_mask);
    OfWatch& of_watch = watches_[event.watch_id];
    const auto known = of_watch.by_path.find(event.path);
    if (known != of_watch.by_path.end()) {
        // An arrival or a loss tells how things stand now, whatever was before.
        std::uint32_t& mask = known->second->raw_mask;
        mask = (raw_mask & kArrivalOrLoss) != 0 ? raw_mask : mask | raw_mask;
        return true;
    }
    if (size_ >= capacity_) return false;
    of_watch.events.push_back({event.path, raw_mask, event.read_time});
    const auto added = std::prev(of_watch.events.end());
    of_watch.by_path.emplace(added->path, added);
    ++size_;
    return true;
}

std::vector<DeferredEvent> DeferredEvents::Take(
    std::size_t limit, const std::function<bool(const std::string&)>& ready) {
    std::vector<DeferredEvent> taken;
    for (auto& [watch_id, of_watch] : watches_) {
        if (of_watch.events.empty() || !ready(watch_id)) continue;
        while (!of_watch.events.empty() && taken.size() < limit) {
            Waiting& oldest = of_watch.events.front();
            of_watch.by_path.erase(oldest.path);
            taken.push_back({watch_id, std::move(oldest.path), oldest.raw_mask, oldest.read_time});
            of_watch.events.pop_front();
            --size_;
        }
    }
    return taken;
}

void DeferredEvents::Clear() {
    watches_.clear();
    size_ = 0;
}

}  // namespace Engine
