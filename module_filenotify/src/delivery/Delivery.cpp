// Owns: the pending changes of each receiver.
// Must not own: posted messages (the framework). A freed message notifies its SendWindow.
// Thread: the task's. Ownership passes: a successful post hands the message to the framework.

#include "delivery/Delivery.h"

#include <module_filenotify/FileNotifyMessage.h>

#include <algorithm>
#include <utility>

namespace Engine::FileNotify {

namespace {

// The task's queue does not signal when other senders' messages leave it.
constexpr std::chrono::milliseconds kRefusedRetry{5};

}  // namespace

Delivery::Delivery(Post post, CountNames count_names, Counters& counters, Now now)
    : post_(std::move(post)),
      count_names_(std::move(count_names)),
      counters_(counters),
      now_(std::move(now)) {}

void Delivery::Add(PendingChange change) {
    const std::string& id = change.subscription->Receiver();
    Receiver& receiver = receivers_.try_emplace(id, count_names_, wakes_).first->second;
    const PendingQueue::Pushed pushed = receiver.queue.Push(std::move(change), now_());
    counters_.events_merged += pushed.dropped + (pushed.added ? 0 : 1);
    counters_.pending += (pushed.added ? 1 : 0) - pushed.dropped;
}

void Delivery::SetStorm(bool storm) {
    for (auto& [id, receiver] : receivers_) receiver.queue.SetStorm(storm);
}

void Delivery::Flush() {
    flushed_at_ = now_();
    for (auto& [id, receiver] : receivers_) {
        if (receiver.queue.Size() > 0) FlushReceiver(id, receiver);
    }
}

void Delivery::FlushReceiver(const std::string& id, Receiver& receiver) {
    PendingQueue& queue = receiver.queue;
    receiver.refused = false;
    SendWindow& window = *receiver.window;
    ReleaseDue(receiver);
    do {
        while (window.HasRoom()) {
            const bool deletions_too = window.HasRoomForDeletion();
            const PendingChange* change = queue.Next(deletions_too);
            if (change == nullptr && deletions_too) return;
            if (change == nullptr) break;
            if (!PostOne(id, receiver, *change)) {
                receiver.refused = true;
                return;
            }
            --counters_.pending;
            queue.Pop();
        }
    } while (!window.WakeWhenLow());
}

void Delivery::ReleaseDue(Receiver& receiver) {
    receiver.queue.SetDeletionCost(receiver.window->DeletionCost());
    const std::size_t released = receiver.queue.ReleaseDue(flushed_at_);
    if (released > 1) counters_.deletions_debounced += released;
    if (released > 0) {
        receiver.window->ResetSlowDeletions();
        receiver.check_coalescing = true;
    }
    // Wait for a measurement: the receiver may not restore these files at all.
    if (!receiver.check_coalescing || !receiver.window->DeletionsAreSlow()) return;
    receiver.check_coalescing = false;
    const std::size_t added = receiver.queue.AnnounceDirectories(flushed_at_);
    counters_.directories_announced += added;
    counters_.pending += added;
}

bool Delivery::PostOne(const std::string& id, Receiver& receiver, const PendingChange& change) {
    const auto posted = change.subscription->Post([&] {
        // The message's destructor reverts this, wherever it is freed.
        receiver.window->OnPost(change.IsDeletion());
        auto message = std::make_unique<FileNotifyMessage>(change.subscription->Id(), change.path,
                                                           change.moveto, change.mask,
                                                           change.read_time, receiver.window);
        if (!post_(id, message.get())) return false;
        static_cast<void>(message.release());  // the framework owns it now
        return true;
    });
    if (posted == Subscription::Posted::kRefused) return false;
    ++(posted == Subscription::Posted::kYes ? counters_.events_delivered
                                            : counters_.events_dropped);
    return true;
}

void Delivery::DropRevoked() {
    for (auto& [id, receiver] : receivers_) {
        const std::size_t dropped = receiver.queue.DropRevoked();
        counters_.events_dropped += dropped;
        counters_.pending -= dropped;
    }
}

bool Delivery::Empty() const {
    return std::all_of(receivers_.begin(), receivers_.end(),
                       [](const auto& receiver) { return receiver.second.queue.Size() == 0; });
}

std::optional<Delivery::Clock::time_point> Delivery::NextDue() const {
    std::optional<Clock::time_point> next;
    const auto take = [&](Clock::time_point due) { next = next ? std::min(*next, due) : due; };
    for (const auto& [id, receiver] : receivers_) {
        if (receiver.refused) take(flushed_at_ + kRefusedRetry);
        if (const auto due = receiver.queue.NextDue()) take(*due);
    }
    return next;
}

std::size_t Delivery::InFlight() const {
    std::size_t count = 0;
    for (const auto& [id, receiver] : receivers_) count += receiver.window->InFlight();
    return count;
}

}  // namespace Engine::FileNotify
