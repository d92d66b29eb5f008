// Owns: the parts of the module, and the order in which they work.
// Must not own: the thread (FileNotifyTask), nor requests that are not applied (WatchRequestQueue).
// Thread: the task's; other threads read what PublishStatus publishes.
// Ownership passes: Delivery hands posted messages to the framework.

#include "NotifyCore.h"

#include <algorithm>
#include <string>
#include <utility>

namespace Engine::FileNotify {

namespace {

// Deliver after this many records so that receivers do not wait for a storm to end.
constexpr std::size_t kRecordsPerTurn = 512;
// In a storm, deliver at this interval or when all records are handled. So repeated changes of one
// object are merged into one message.
constexpr std::chrono::milliseconds kStormFlushInterval{8};
constexpr std::size_t kWalkBudget = 4096;  // directories and names
constexpr std::chrono::milliseconds kMaxIdle{1000};
constexpr std::chrono::milliseconds kPublishInterval{100};
// A policy change removes watches and adds them again. Their directories are kept this long.
constexpr std::chrono::milliseconds kPruneDelay{1000};
constexpr std::size_t kMaxPending = 32768;  // messages; above it, walks that announce must wait

}  // namespace

NotifyCore::NotifyCore(std::unique_ptr<InotifyDescriptor> descriptor, Delivery::Post post,
                       StatusPublisher& status, Poco::Logger* logger,
                       std::chrono::milliseconds retry_after)
    : descriptor_(std::move(descriptor)),
      status_(status),
      delivery_(
          std::move(post),
          [this](const Subscription& subscription, const std::string& path) {
              return roots_.NamesBelow(subscription, path);
          },
          status.Counts()),
      tree_(*descriptor_, logger, status.Counts()),
      reader_(*descriptor_),
      router_(tree_.matcher, delivery_),
      pruner_(tree_),
      roots_(tree_, router_, pruner_),
      changes_(tree_, router_, roots_),
      walker_(tree_, *descriptor_, router_, changes_, [this] { reader_.Fill(); }),
      retry_(tree_, roots_, walker_, retry_after),
      translator_(reader_, tree_, router_, changes_, roots_, status.Counts(), logger),
      collector_(tree_, roots_, delivery_) {}

NotifyCore::~NotifyCore() = default;

int NotifyCore::Open() {
    return descriptor_->Open();
}

void NotifyCore::Close() {
    while (!tree_.matcher.All().empty()) {
        roots_.Stop(tree_.matcher.All().back()->request.subscription.get());
    }
    walker_.End();
    descriptor_->Close();
    tree_.Clear();
    reader_.Clear();
    delivery_.DropRevoked();
    PublishStatus();
}

void NotifyCore::Apply(const std::vector<WatchRequest>& requests) {
    bool removed = false;
    for (const WatchRequest& request : requests) {
        if (request.remove) {
            roots_.Stop(request.subscription.get());
            removed = true;
        } else {
            roots_.Start(request);
        }
    }
    if (removed) delivery_.DropRevoked();
    if (requests.empty()) return;
    pruner_.Postpone(Clock::now() + kPruneDelay);
    router_.SetTime(Clock::now());
    roots_.ResolveChanged();
}

void NotifyCore::ReadEvents() {
    const std::size_t records = reader_.Fill();
    const auto now = Clock::now();
    if (!backoff_.IsStorm()) next_flush_ = now + kStormFlushInterval;
    backoff_.OnRead(records, reader_.HasEmptied(), now);
    delivery_.SetStorm(backoff_.IsStorm());
}

void NotifyCore::Flush() {
    delivery_.Flush();
    next_flush_ = Clock::now() + kStormFlushInterval;
}

void NotifyCore::Work() {
    translator_.Handle(kRecordsPerTurn);
    translator_.Recover();
    if (!backoff_.IsStorm() || reader_.Empty() || Clock::now() >= next_flush_) Flush();
    if (MayWalk()) {
        if (!walker_.Step(kWalkBudget, MayAnnounce())) walker_.End();
        roots_.ResolveChanged();
        Flush();
    }
    const auto now = Clock::now();
    retry_.RetryIfDue(now);
    pruner_.PruneIfDue(now);
    if (now >= next_publish_) PublishStatus();
    // An open directory prevents unmounting its file system.
    if (reader_.Empty() && tree_.queue.Empty()) tree_.opener.Clear();
}

bool NotifyCore::MayAnnounce() const {
    return status_.Counts().pending < kMaxPending;
}

bool NotifyCore::MayWalk() const {
    return !tree_.queue.Empty(WalkQueue::kIndexing) || (!tree_.queue.Empty() && MayAnnounce());
}

std::chrono::milliseconds NotifyCore::IdleTime() const {
    if (!reader_.Empty() || MayWalk()) return std::chrono::milliseconds(0);
    std::chrono::milliseconds idle = kMaxIdle;
    const auto until = [&](Clock::time_point due) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(due - Clock::now());
        idle = std::clamp(left, std::chrono::milliseconds(0), idle);
    };
    if (const auto due = delivery_.NextDue()) until(*due);
    if (IsPaused()) until(backoff_.Until());
    if (retry_.IsPending()) until(retry_.Due());
    if (pruner_.IsRequested()) until(pruner_.Due());
    return idle;
}

void NotifyCore::PublishStatus() {
    status_.Publish(collector_.Collect());
    next_publish_ = Clock::now() + kPublishInterval;
}

}  // namespace Engine::FileNotify
