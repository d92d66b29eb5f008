// Owns: the changes that wait, by receiver. Not: a message that was posted; that is the
// framework's, which tells its SendWindow when it is gone. Thread: the task's.

#include "delivery/Delivery.h"

#include <module_filenotify/FileNotifyMessage.h>

#include <algorithm>
#include <utility>

namespace Engine::FileNotify {

namespace {

// A queue that others have filled tells nobody when there is room.
constexpr std::chrono::milliseconds kRefusedRetry{5};

}  // namespace

Delivery::Delivery(Post post, NamesBelow names_below, Counters& counters, Now now)
    : post_(std::move(post)),
      names_below_(std::move(names_below)),
      counters_(counters),
      now_(std::move(now)) {}

void Delivery::Add(PendingChange change) {
    const std::string& id = change.subscription->Receiver();
    Receiver& receiver = receivers_.try_emplace(id, names_below_, wakes_).first->second;
    const PendingQueue::Pushed pushed = receiver.queue.Push(std::move(change), now_());
    counters_.events_merged += pushed.dropped + (pushed.added ? 0 : 1);
    counters_.pending += (pushed.added ? 1 : 0) - pushed.dropped;
}

void Delivery::SetStorm(bool storm) {
    for (auto& [id, receiver] : receivers_) receiver.queue.SetStorm(storm);
}

void Delivery::Flush() {
    flushed_ = now_();
    for (auto& [id, receiver] : receivers_) {
        if (receiver.queue.Size() > 0) FlushOne(id, receiver);
    }
}

void Delivery::FlushOne(const std::string& id, Receiver& receiver) {
    PendingQueue& queue = receiver.queue;
    receiver.refused = false;
    SendWindow& window = *receiver.window;
    Settle(receiver);
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

void Delivery::Settle(Receiver& receiver) {
    receiver.queue.SetDeletionCost(receiver.window->DeletionCost());
    const std::size_t settled = receiver.queue.Settle(flushed_);
    if (settled > 1) counters_.deletions_settled += settled;
    if (settled > 0) {
        receiver.window->ForgetSlowDeletions();
        receiver.repairs_due = true;
    }
    // Not earlier: what is deleted may be nothing that the receiver would put back.
    if (!receiver.repairs_due || !receiver.window->DeletionsAreSlow()) return;
    receiver.repairs_due = false;
    const std::size_t added = receiver.queue.AddRepairs(flushed_);
    counters_.directories_announced += added;
    counters_.pending += added;
}

bool Delivery::PostOne(const std::string& id, Receiver& receiver, const PendingChange& change) {
    const auto posted = change.subscription->Post([&] {
        // Taken back when the message is freed, here or there.
        receiver.window->Posted(change.IsDeletion());
        auto message = std::make_unique<FileNotifyMessage>(change.subscription->Id(), change.path,
                                                           change.moveto, change.mask,
                                                           change.read_time, receiver.window);
        if (!post_(id, message.get())) return false;
        static_cast<void>(message.release());  // the framework's from here on
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
        if (receiver.refused) take(flushed_ + kRefusedRetry);
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
