// Owns: the parts and the order in which each has its turn. Not: the thread, nor the requests on
// their way (FileNotifyTask, WatchRequestQueue). Thread: the task's; PublishStatus is how others
// see it.

#include "NotifyCore.h"

#include <sys/inotify.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "requests/WatchRequestQueue.h"

namespace Engine::FileNotify {

namespace {

// Receivers get what there is after so many: they are not to wait for the end of a storm.
constexpr std::size_t kRecordsAtOnce = 512;
// In a storm only after so long, unless all has been handled before: of what changes again and
// again they then get one message for many records.
constexpr std::chrono::milliseconds kMergeFor{8};
constexpr std::size_t kWalkedAtOnce = 4096;
constexpr std::chrono::milliseconds kIdle{1000};
constexpr std::chrono::milliseconds kPublishEvery{100};
// A policy takes its watches off and puts them on again: what they need is kept so long.
constexpr std::chrono::milliseconds kPruneAfter{1000};
// Of the directories without a kernel watch so many are looked through at a time, the next ones the
// next time; and after so many failures no further watch is tried.
constexpr std::size_t kRetriedAtOnce = 4096;
constexpr int kFailuresPerRetry = 8;
constexpr std::size_t kExamplesShown = 5;
constexpr std::size_t kMostWaiting = 32768;
constexpr int kRetryPutOff = 10;  // times as long, while a walk goes on

}  // namespace

NotifyCore::NotifyCore(std::unique_ptr<InotifyDescriptor> descriptor, Delivery::Post post,
                       StatusPublisher& status, Poco::Logger* logger,
                       std::chrono::milliseconds retry_after)
    : descriptor_(std::move(descriptor)),
      status_(status),
      retry_after_(retry_after),
      delivery_(
          std::move(post),
          [this](const Subscription& subscription, const std::string& path) {
              return NamesBelow(subscription, path);
          },
          status.Count()),
      tree_(*descriptor_, logger, status.Count()),
      reader_(*descriptor_),
      router_(tree_.matcher, delivery_),
      roots_(tree_, router_),
      changes_(tree_, router_, roots_),
      walker_(tree_, *descriptor_, router_, changes_, roots_, [this] { reader_.Fill(); }),
      translator_(reader_, tree_, router_, changes_, roots_, status.Count(), logger) {}

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
    prune_at_ = Clock::now() + kPruneAfter;
    router_.SetTime(Clock::now());
    roots_.Settle();
}

void NotifyCore::Fill() {
    const std::size_t records = reader_.Fill();
    const auto now = Clock::now();
    if (!backoff_.IsStorm()) flush_at_ = now + kMergeFor;
    backoff_.Note(records, reader_.HasEmptied(), now);
    delivery_.SetStorm(backoff_.IsStorm());
}

void NotifyCore::Flush() {
    delivery_.Flush();
    flush_at_ = Clock::now() + kMergeFor;
}

void NotifyCore::Work() {
    translator_.Handle(kRecordsAtOnce);
    translator_.Recover();
    if (!backoff_.IsStorm() || reader_.Empty() || Clock::now() >= flush_at_) Flush();
    if (MayWalk()) {
        if (!walker_.Step(kWalkedAtOnce, MayTell())) walker_.End();
        roots_.Settle();
        Flush();
    }
    const auto now = Clock::now();
    if (RetryPending() && now >= RetryDue()) {
        RetryUnwatched();
        RetryUnneeded();
        next_retry_ = Clock::now() + retry_after_;
    }
    if (roots_.PruneDue() && now >= prune_at_) roots_.Prune();
    if (now >= next_publish_) PublishStatus();
    // An open directory keeps its file system from being unmounted.
    if (reader_.Empty() && tree_.queue.Empty()) tree_.opener.Clear();
}

// What a walk announces waits in memory until the receivers have taken it: with too much of that
// such walks wait, too.
bool NotifyCore::MayTell() const {
    return status_.Count().pending < kMostWaiting;
}

bool NotifyCore::MayWalk() const {
    return !tree_.queue.Empty(WalkQueue::kSilent) || !tree_.queue.Empty(WalkQueue::kUnneeded) ||
           (!tree_.queue.Empty() && MayTell());
}

// First comes what is not known at all; but not for as long as somebody keeps the walk going.
NotifyCore::Clock::time_point NotifyCore::RetryDue() const {
    return next_retry_ + (tree_.queue.Empty() ? 0 : kRetryPutOff) * retry_after_;
}

bool NotifyCore::RetryPending() const {
    return !tree_.unwatched.Empty() || tree_.reserve.Unwatched() > 0;
}

void NotifyCore::RetryUnwatched() {
    const std::vector<DirNode*> unwatched = tree_.unwatched.All();
    const std::size_t count = std::min(unwatched.size(), kRetriedAtOnce);
    int failures = 0;
    bool step_watched = false;
    for (std::size_t i = 0; i < count; ++i) {
        DirNode* node = unwatched[retry_from_++ % unwatched.size()];
        if (!tree_.unwatched.Contains(node)) continue;  // went with the one before
        const bool hopeless = failures >= kFailuresPerRetry;
        const int error = hopeless ? ENOSPC : tree_.EnsureWatched(*node);
        if (WatchedTree::IsGone(error)) {
            walker_.DropVanished(*node);
        } else if (tree_.matcher.IsWalked(*node)) {
            tree_.Enqueue(*node, error == 0 ? WalkQueue::kReconcile : WalkQueue::kLook, nullptr);
        } else if (error == 0) {
            step_watched = true;
        }
        if (error != 0) ++failures;
    }
    if (step_watched) roots_.LookAgain(false);
    roots_.Settle();
}

// Directories that gave way get watches again when there are some left. The first refusal ends it.
void NotifyCore::RetryUnneeded() {
    for (DirNode* node : tree_.reserve.SomeUnwatched(kRetriedAtOnce)) {
        if (!tree_.reserve.IsUnwatched(*node)) continue;  // went with the one before
        const int error = tree_.EnsureWatched(*node);
        if (WatchedTree::IsGone(error)) {
            walker_.DropVanished(*node);
        } else if (error != 0) {
            break;
        } else if (tree_.matcher.IsWalked(*node)) {
            tree_.Enqueue(*node, WalkQueue::kReconcile, nullptr);
        }
    }
    roots_.Settle();
}

std::optional<std::size_t> NotifyCore::NamesBelow(const Subscription& subscription,
                                                  const std::string& path) {
    const Watch* watch = tree_.matcher.Find(&subscription);
    if (watch == nullptr || !watch->root_present || !watch->request.report_directories ||
        (watch->request.mask & IN_ATTRIB) == 0) {
        return std::nullopt;
    }
    const DirNode* node = roots_.RootNode(*watch);
    for (const std::string& name : WatchRequestQueue::Split(path.substr(watch->Id().size()))) {
        if (node == nullptr) break;
        node = node->dirs.Find(name);
    }
    if (node == nullptr) return std::nullopt;
    return std::size_t{node->totals.directories} + node->totals.files;
}

std::chrono::milliseconds NotifyCore::IdleTime() const {
    if (!reader_.Empty() || MayWalk()) return std::chrono::milliseconds(0);
    std::chrono::milliseconds idle = kIdle;
    const auto until = [&](Clock::time_point due) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(due - Clock::now());
        idle = std::clamp(left, std::chrono::milliseconds(0), idle);
    };
    if (const auto due = delivery_.NextDue()) until(*due);
    if (IsResting()) until(backoff_.Until());
    if (RetryPending()) until(RetryDue());
    if (roots_.PruneDue()) until(prune_at_);
    return idle;
}

void NotifyCore::PublishStatus() {
    StatusPublisher::Snapshot snapshot;
    for (const auto& watch : tree_.matcher.All()) snapshot.watches.push_back(StatusOf(*watch));
    const SubtreeTotals& totals = tree_.index.Root().totals;
    snapshot.watched_directories = tree_.table.Size();
    snapshot.indexed_names = std::size_t{totals.directories} + totals.files;
    snapshot.unwatched = totals.unwatched;
    snapshot.unneeded_unwatched = tree_.reserve.Unwatched();
    snapshot.walk_queue = tree_.queue.Size();
    snapshot.in_flight = delivery_.InFlight();
    snapshot.unwatched_examples = tree_.unwatched.Examples(kExamplesShown);
    status_.Publish(std::move(snapshot));
    next_publish_ = Clock::now() + kPublishEvery;
}

WatchStatus NotifyCore::StatusOf(const Watch& watch) const {
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

const char* NotifyCore::StateOf(const Watch& watch, std::uint32_t unwatched) const {
    if (!watch.root_present) return watch.started ? "waiting" : "walking";
    const auto& all = tree_.matcher.All();
    // Directories that two watches share are walked once, for either.
    const DirNode* root = roots_.RootNode(watch);
    const bool walking = std::any_of(all.begin(), all.end(), [&](const auto& other) {
        const DirNode* top = roots_.RootNode(*other);
        return other->jobs > 0 && root != nullptr && top != nullptr &&
               (NameIndex::IsWithin(*root, *top) || NameIndex::IsWithin(*top, *root));
    });
    if (walking) return "walking";
    return unwatched > 0 ? "degraded" : "ready";
}

}  // namespace Engine::FileNotify
