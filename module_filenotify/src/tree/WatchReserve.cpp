// Owns: the choice of the watches that end, and the list of directories that gave way. Not: the
// watches (WatchTable), nor what gives way (WatchMatcher). Thread: the task's.

#include "tree/WatchReserve.h"

#include <sdk/log/Log.h>

#include <algorithm>

namespace Engine::FileNotify {

namespace {

// A search goes through the table once; this many serve for a while, and take 16 KiB.
constexpr std::size_t kFoundAtOnce = 4096;
// A search that found nothing would find nothing for the next directory either.
constexpr std::chrono::seconds kSearchAgainAfter{1};
constexpr std::chrono::minutes kLogAgainAfter{1};

}  // namespace

bool WatchReserve::FreeOne() {
    const Time now = std::chrono::steady_clock::now();
    if (found_.empty()) Search(now);
    while (!found_.empty()) {
        const int wd = found_.back();
        found_.pop_back();
        if (!Release(wd)) continue;
        const std::uint64_t count = ++counters_.watches_given_up;
        if (now >= next_log_) {
            next_log_ = now + kLogAgainAfter;
            SDK_LOG(logger_, PRIO_WARNING,
                    "no more inotify watches: those of excluded directories give way to protected "
                    "ones, %?u so far (raise fs.inotify.max_user_watches).",
                    count);
        }
        return true;
    }
    return false;
}

void WatchReserve::Search(Time now) {
    if (now < next_search_) return;
    table_.ForEach([&](int wd, const DirNode& node) {
        if (matcher_.GivesWay(node)) found_.push_back(wd);
        return found_.size() < kFoundAtOnce;
    });
    if (found_.empty()) next_search_ = now + kSearchAgainAfter;
}

// What was found may have been moved, or be wanted by a new watch by now.
bool WatchReserve::Release(int wd) {
    DirNode* first = table_.FirstNodeOf(wd);
    if (first == nullptr) return false;
    std::vector<DirNode*> nodes = table_.FurtherNodesOf(wd);
    nodes.push_back(first);
    const auto gives_way = [&](const DirNode* node) { return matcher_.GivesWay(*node); };
    if (!std::all_of(nodes.begin(), nodes.end(), gives_way)) return false;
    for (DirNode* node : nodes) {
        table_.Unwatch(*node);
        AddUnwatched(*node);
    }
    return true;
}

std::vector<DirNode*> WatchReserve::SomeUnwatched(std::size_t count) const {
    std::vector<DirNode*> some;
    for (auto it = unwatched_.begin(); it != unwatched_.end() && some.size() < count; ++it) {
        some.push_back(*it);
    }
    return some;
}

}  // namespace Engine::FileNotify
