// Owns: the candidates for eviction and the list of low-priority directories without a watch.
// Must not own: the watches (WatchTable), nor which have low priority (WatchMatcher).
// Thread: the task's. Ownership passes: never.

#include "tree/WatchEviction.h"

#include <sdk/log/Log.h>

#include <algorithm>

namespace Engine::FileNotify {

namespace {

// A search scans the whole table, so it collects several candidates: 16 KiB.
constexpr std::size_t kCandidatesPerSearch = 4096;
// Delay after a search without result.
constexpr std::chrono::seconds kSearchAgainAfter{1};
constexpr std::chrono::minutes kLogAgainAfter{1};

}  // namespace

bool WatchEviction::EvictOne() {
    const Time now = std::chrono::steady_clock::now();
    if (candidates_.empty()) Search(now);
    while (!candidates_.empty()) {
        const int wd = candidates_.back();
        candidates_.pop_back();
        if (!Evict(wd)) continue;
        const std::uint64_t count = ++counters_.watches_evicted;
        if (now >= next_log_) {
            next_log_ = now + kLogAgainAfter;
            SDK_LOG(logger_, PRIO_WARNING,
                    "no more inotify watches: watches of excluded directories are evicted for "
                    "protected ones, %?u so far (raise fs.inotify.max_user_watches).",
                    count);
        }
        return true;
    }
    return false;
}

void WatchEviction::Search(Time now) {
    if (now < next_search_) return;
    table_.ForEach([&](int wd, const DirNode& node) {
        if (matcher_.IsLowPriority(node)) candidates_.push_back(wd);
        return candidates_.size() < kCandidatesPerSearch;
    });
    if (candidates_.empty()) next_search_ = now + kSearchAgainAfter;
}

// A candidate may have been moved or covered by a new watch since the search.
bool WatchEviction::Evict(int wd) {
    DirNode* first = table_.FirstNodeOf(wd);
    if (first == nullptr) return false;
    std::vector<DirNode*> nodes = table_.FurtherNodesOf(wd);
    nodes.push_back(first);
    const auto is_low_priority = [&](const DirNode* node) { return matcher_.IsLowPriority(*node); };
    if (!std::all_of(nodes.begin(), nodes.end(), is_low_priority)) return false;
    for (DirNode* node : nodes) {
        table_.Unwatch(*node);
        AddUnwatched(*node);
    }
    return true;
}

std::vector<DirNode*> WatchEviction::SomeUnwatched(std::size_t count) const {
    std::vector<DirNode*> some;
    for (auto it = unwatched_.begin(); it != unwatched_.end() && some.size() < count; ++it) {
        some.push_back(*it);
    }
    return some;
}

}  // namespace Engine::FileNotify
