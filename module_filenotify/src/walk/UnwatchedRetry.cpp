// Owns: the time of the next retry. Must not own: the lists of directories (UnwatchedList).
// Thread: the task's. Ownership passes: never.

#include "walk/UnwatchedRetry.h"

#include <algorithm>
#include <cerrno>
#include <vector>

namespace Engine::FileNotify {

namespace {

constexpr std::size_t kMaxRetries = 4096;  // the next retry continues with the others
constexpr int kMaxFailures = 8;            // then only poll the directories
constexpr int kDelayDuringWalks = 10;      // times the interval

}  // namespace

bool UnwatchedRetry::IsPending() const {
    return !tree_.unwatched.Empty();
}

UnwatchedRetry::Clock::time_point UnwatchedRetry::Due() const {
    return next_ + (tree_.queue.Empty() ? 0 : kDelayDuringWalks) * interval_;
}

void UnwatchedRetry::RetryIfDue(Clock::time_point now) {
    if (!IsPending() || now < Due()) return;
    RetryNeeded();
    next_ = Clock::now() + interval_;
}

void UnwatchedRetry::RetryNeeded() {
    const std::vector<DirNode*> unwatched = tree_.unwatched.All();
    const std::size_t count = std::min(unwatched.size(), kMaxRetries);
    int failures = 0;
    bool path_watched = false;
    for (std::size_t i = 0; i < count; ++i) {
        DirNode* node = unwatched[position_++ % unwatched.size()];
        if (!tree_.unwatched.Contains(node)) continue;  // removed together with an earlier one
        if (!RetryOne(*node, failures < kMaxFailures, path_watched)) ++failures;
    }
    if (path_watched) roots_.ResolveAll(false);
    roots_.ResolveChanged();
}

/// Returns false when the directory is still unwatched. Sets `path_watched` when it is part of the
/// path to a root and is watched now.
bool UnwatchedRetry::RetryOne(DirNode& node, bool may_watch, bool& path_watched) {
    const int error = may_watch ? tree_.EnsureWatched(node) : ENOSPC;
    if (WatchedTree::IsGone(error)) {
        walker_.DropVanished(node);
    } else if (tree_.matcher.IsWalked(node)) {
        tree_.Enqueue(node, error == 0 ? WalkQueue::kReconcile : WalkQueue::kPoll, nullptr);
    } else if (error == 0) {
        path_watched = true;
    }
    return error == 0;
}

}  // namespace Engine::FileNotify
