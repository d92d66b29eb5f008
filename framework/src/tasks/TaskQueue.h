#pragma once

#include <framework/Message.h>
#include <framework/Task.h>

#include <atomic>
#include <boost/lockfree/spsc_queue.hpp>
#include <memory>
#include <mutex>

namespace Framework {

/// The bounded message queue of a task: many senders, one consumer.
///
/// The ring is lock-free, so the consumer never waits for a sender. A mutex, held for one push,
/// orders the senders: the library's queue for several senders accesses its free list without
/// synchronisation, which ThreadSanitizer reports. A full queue refuses messages; it never
/// overwrites or drops one.
class Task::Queue {
  public:
    enum class Pushed { kRefused, kTaken, kTakenFirst };

    explicit Queue(std::size_t capacity) : ring_(capacity) {}
    ~Queue() { Drain(); }
    Queue(const Queue&) = delete;
    Queue& operator=(const Queue&) = delete;

    void Open() { SetOpen(true); }
    /// Refuses messages from now on; waiting messages stay.
    void Close() { SetOpen(false); }

    /// kTakenFirst: the queue was empty, so the consumer may be waiting.
    Pushed Push(Message* msg) {
        const std::lock_guard<std::mutex> lock(senders_);
        if (!open_) return Pushed::kRefused;
        const bool first = length_.fetch_add(1) == 0;
        if (ring_.push(msg)) return first ? Pushed::kTakenFirst : Pushed::kTaken;
        length_.fetch_sub(1);
        return Pushed::kRefused;
    }

    /// The oldest message, or null. Consumer only.
    std::unique_ptr<Message> Pop() {
        Message* msg = nullptr;
        if (!ring_.pop(msg)) return nullptr;
        length_.fetch_sub(1);
        return std::unique_ptr<Message>(msg);
    }

    /// Deletes the waiting messages. Call it on the consumer's thread, or when that has ended and
    /// the queue is closed.
    void Drain() {
        while (Pop()) {
        }
    }

    /// Never less than the number of messages that Pop would return.
    std::size_t Length() const { return length_.load(); }

  private:
    void SetOpen(bool open) {
        const std::lock_guard<std::mutex> lock(senders_);
        open_ = open;
    }

    std::mutex senders_;
    bool open_ = false;
    boost::lockfree::spsc_queue<Message*> ring_;
    std::atomic<std::size_t> length_{0};
};

}  // namespace Framework
