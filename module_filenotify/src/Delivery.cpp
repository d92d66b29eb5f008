// Owns: the changes that wait for room in their receivers' queues.
// Not: a message that was posted; that is the framework's. Thread: the task's.

#include "Delivery.h"

#include <module_filenotify/FileNotifyMessage.h>

#include <utility>

namespace Engine::FileNotify {

void Delivery::Add(PendingChange change) {
    PendingQueue& queue = queues_[change.ticket->Receiver()];
    if (queue.Push(std::move(change))) {
        ++counters_.pending;
    } else {
        ++counters_.events_merged;
    }
}

void Delivery::Flush() {
    for (auto queue = queues_.begin(); queue != queues_.end();) {
        queue = FlushOne(queue->first, queue->second) ? queues_.erase(queue) : std::next(queue);
    }
}

bool Delivery::FlushOne(const std::string& receiver, PendingQueue& queue) {
    while (!queue.Empty()) {
        const PendingChange& change = queue.Front();
        const auto posted = change.ticket->Post([&] {
            auto message = std::make_unique<FileNotifyMessage>(
                change.ticket->Id(), change.path, change.moveto, change.mask, change.read_time);
            if (!post_(receiver, message.get())) return false;
            static_cast<void>(message.release());  // the framework's from here on
            return true;
        });
        if (posted == WatchTicket::Posted::kRefused) return false;
        ++(posted == WatchTicket::Posted::kYes ? counters_.events_delivered
                                               : counters_.events_dropped);
        --counters_.pending;
        queue.Pop();
    }
    return true;
}

}  // namespace Engine::FileNotify
