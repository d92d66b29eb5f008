#include <DeferredEvents.h>
#include <sys/inotify.h>

namespace Engine {

namespace {

constexpr std::uint32_t kArrivalOrLoss = IN_CREATE | IN_DELETE;

/// The event bits with a move told as the arrival or the loss that it is for the one path.
std::uint32_t WithoutMoves(std::uint32_t mask) {
    if ((mask & IN_MOVED_FROM) != 0) mask |= IN_DELETE;
    if ((mask & IN_MOVED_TO) != 0) mask |= IN_CREATE;
    return mask & ~static_cast<std::uint32_t>(IN_MOVED_FROM | IN_MOVED_TO);
}

}  // namespace

bool DeferredEvents::Keep(DeferredEvent event) {
    event.raw_mask = WithoutMoves(event.raw_mask);
    const Key key{event.watch_id, event.path};
    const auto known = by_path_.find(key);
    if (known != by_path_.end()) {
        // An arrival or a loss tells how things stand now, whatever was before.
        std::uint32_t& mask = known->second->raw_mask;
        mask = (event.raw_mask & kArrivalOrLoss) != 0 ? event.raw_mask : mask | event.raw_mask;
        return true;
    }
    if (events_.size() >= kCapacity) return false;
    events_.push_back(std::move(event));
    by_path_.emplace(key, std::prev(events_.end()));
    return true;
}

std::vector<DeferredEvent> DeferredEvents::Take(
    std::size_t limit, const std::function<bool(const std::string&)>& ready) {
    std::vector<DeferredEvent> taken;
    for (auto at = events_.begin(); at != events_.end() && taken.size() < limit;) {
        if (!ready(at->watch_id)) {
            ++at;
            continue;
        }
        by_path_.erase({at->watch_id, at->path});
        taken.push_back(std::move(*at));
        at = events_.erase(at);
    }
    return taken;
}

void DeferredEvents::Clear() {
    events_.clear();
    by_path_.clear();
}

}  // namespace Engine
