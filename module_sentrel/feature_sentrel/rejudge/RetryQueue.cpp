// Owns the changes whose undo failed, bounded in number, and the times of their retries. It must
// not undo anything (Undoer does). Inotify task's thread.
#include "feature_sentrel/rejudge/RetryQueue.h"

#include <algorithm>

namespace Engine {

namespace {

constexpr std::chrono::seconds kShortest{1};
constexpr std::chrono::seconds kLongest{600};

}  // namespace

RetryQueue::Kept RetryQueue::Keep(FileChange change, Clock::time_point now) {
    if (change.attempt > kMostTries) return Kept::kGivenUp;
    const Path path(change.watch_id, change.path);
    const auto known = waiting_.find(path);
    if (known != waiting_.end()) {
        known->second.raw_mask = MergedMask(known->second.raw_mask, change.raw_mask);
        return Kept::kYes;
    }
    if (waiting_.size() >= capacity_) return Kept::kNoRoom;
    const unsigned int doublings = change.attempt == 0 ? 0 : change.attempt - 1;
    turns_.emplace(now + std::min(kShortest * (1U << doublings), kLongest), path);
    change.raw_mask = WithoutMoves(change.raw_mask);
    change.origin = ChangeOrigin::kRetry;
    waiting_.emplace(path, std::move(change));
    return Kept::kYes;
}

std::optional<FileChange> RetryQueue::TakeDue(Clock::time_point now) {
    if (turns_.empty() || turns_.begin()->first > now) return std::nullopt;
    const auto due = waiting_.extract(turns_.begin()->second);
    turns_.erase(turns_.begin());
    return due.mapped();
}

void RetryQueue::Clear() {
    waiting_.clear();
    turns_.clear();
}

}  // namespace Engine
