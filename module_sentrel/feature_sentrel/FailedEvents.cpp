#include <FailedEvents.h>

#include <algorithm>

namespace Engine {

namespace {

constexpr std::chrono::seconds kShortest{1};
constexpr std::chrono::seconds kLongest{600};

}  // namespace

FailedEvents::Kept FailedEvents::Keep(Failed failed, Clock::time_point now) {
    if (failed.tries > kMostTries) return Kept::kGivenUp;
    const Path path(failed.event.watch_id, failed.event.path);
    if (waiting_.count(path) != 0) return Kept::kYes;
    if (waiting_.size() >= capacity_) return Kept::kNoRoom;
    const unsigned int doublings = failed.tries == 0 ? 0 : failed.tries - 1;
    turns_.emplace(now + std::min(kShortest * (1U << doublings), kLongest), path);
    failed.event.raw_mask = WithoutMoves(failed.event.raw_mask);
    waiting_.emplace(path, std::move(failed));
    return Kept::kYes;
}

std::optional<FailedEvents::Failed> FailedEvents::TakeDue(Clock::time_point now) {
    if (turns_.empty() || turns_.begin()->first > now) return std::nullopt;
    const auto due = waiting_.extract(turns_.begin()->second);
    turns_.erase(turns_.begin());
    return due.mapped();
}

void FailedEvents::Clear() {
    waiting_.clear();
    turns_.clear();
}

}  // namespace Engine
