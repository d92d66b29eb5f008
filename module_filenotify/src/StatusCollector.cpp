#include "StatusCollector.h"

#include <algorithm>
#include <cstddef>

namespace Engine::FileNotify {

namespace {

constexpr std::size_t kExamplesShown = 5;

}  // namespace

StatusPublisher::Snapshot StatusCollector::Collect() const {
    StatusPublisher::Snapshot snapshot;
    for (const auto& watch : tree_.matcher.All()) snapshot.watches.push_back(StatusOf(*watch));
    const SubtreeTotals& totals = tree_.index.Root().totals;
    snapshot.watched_directories = tree_.table.Size();
    snapshot.indexed_names = std::size_t{totals.directories} + totals.files;
    snapshot.unwatched = totals.unwatched;
    snapshot.walk_queue = tree_.queue.Size();
    snapshot.in_flight = delivery_.InFlight();
    snapshot.unwatched_examples = tree_.unwatched.Examples(kExamplesShown);
    return snapshot;
}

WatchStatus StatusCollector::StatusOf(const Watch& watch) const {
    WatchStatus status;
    status.id = watch.Id();
    status.receiver = watch.request.subscription->Receiver();
    status.is_tree = watch.was_present ? watch.root_is_directory : watch.request.names_directory;
    const DirNode* root = roots_.RootNode(watch);
    if (watch.root_present && root != nullptr) {
        status.directories = root->totals.directories;
        status.files = root->totals.files;
        status.unwatched = root->totals.unwatched;
    } else if (watch.root_present) {
        status.files = 1;
    }
    if (watch.attach != nullptr && watch.attach->Is(DirNode::kUnwatched)) ++status.unwatched;
    status.state = StateOf(watch, status.unwatched);
    return status;
}

const char* StatusCollector::StateOf(const Watch& watch, std::uint32_t unwatched) const {
    if (!watch.root_present) return watch.started ? "waiting" : "walking";
    if (IsWalking(watch)) return "walking";
    return unwatched > 0 ? "degraded" : "ready";
}

// Directories of several watches are walked once, for any of them. So a walk of an overlapping
// watch counts for this one too.
bool StatusCollector::IsWalking(const Watch& watch) const {
    const DirNode* root = roots_.RootNode(watch);
    const auto& all = tree_.matcher.All();
    return std::any_of(all.begin(), all.end(), [&](const auto& other) {
        const DirNode* top = roots_.RootNode(*other);
        return other->jobs > 0 && root != nullptr && top != nullptr &&
               (NameIndex::IsWithin(*root, *top) || NameIndex::IsWithin(*top, *root));
    });
}

}  // namespace Engine::FileNotify
