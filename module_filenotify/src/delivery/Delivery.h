#pragma once

#include <framework/Message.h>

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "delivery/PendingQueue.h"
#include "delivery/SendWindow.h"
#include "delivery/WakeEvent.h"
#include "status/Counters.h"

namespace Engine::FileNotify {

/// Posts changes to their receivers as FileNotifyMessage, in the order of PendingQueue and at the
/// pace of the receiver (SendWindow). Owned by NotifyCore. Not thread-safe.
class Delivery {
  public:
    using Clock = std::chrono::steady_clock;
    using Now = std::function<Clock::time_point()>;
    /// Posts a message to a task's queue. Returns false when the queue refuses it; the caller then
    /// keeps the message. Must not block.
    using Post = std::function<bool(const std::string& receiver, Framework::Message* message)>;

    Delivery(Post post, CountNames count_names, Counters& counters, Now now = Clock::now);

    /// Adds a change, or merges it with a pending one.
    void Add(PendingChange change);

    /// In a storm, repeated changes of the same object are debounced.
    void SetStorm(bool storm);

    /// Posts due changes as far as the receivers' windows allow. A refused post is not an error; it
    /// is tried again (NextDue).
    void Flush();

    /// Drops pending changes of removed watches.
    void DropRevoked();

    bool Empty() const;

    /// When Flush has work without a wake-up; none when only a wake-up can give it work.
    std::optional<Clock::time_point> NextDue() const;

    /// Becomes readable when a receiver's window has room again; then call Flush.
    const WakeEvent& WakeUp() const { return *wakes_; }

    /// Number of posted messages that receivers have not handled yet.
    std::size_t InFlight() const;

  private:
    struct Receiver {
        Receiver(const CountNames& count_names, const std::shared_ptr<const WakeEvent>& wakes)
            : queue(count_names), window(std::make_shared<SendWindow>(wakes)) {}

        PendingQueue queue;
        const std::shared_ptr<SendWindow> window;
        bool refused = false;           ///< the last Flush ended with a refused post
        bool check_coalescing = false;  ///< deletions were released since the last check
    };

    void FlushReceiver(const std::string& id, Receiver& receiver);
    void ReleaseDue(Receiver& receiver);
    bool PostOne(const std::string& id, Receiver& receiver, const PendingChange& change);

    const Post post_;
    const CountNames count_names_;
    Counters& counters_;
    const Now now_;
    const std::shared_ptr<const WakeEvent> wakes_ = std::make_shared<WakeEvent>();
    std::map<std::string, Receiver> receivers_;  ///< never removed; ids are few
    Clock::time_point flushed_at_{};
};

}  // namespace Engine::FileNotify
