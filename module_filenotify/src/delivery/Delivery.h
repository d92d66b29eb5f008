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

/// Hands changes to their receivers as FileNotifyMessage, in PendingQueue's order and no faster
/// than a receiver deals with them; the rest waits here. Task's thread only.
class Delivery {
  public:
    using Clock = std::chrono::steady_clock;
    using Now = std::function<Clock::time_point()>;
    /// Queues a message for a task; false: not now, and the message stays the caller's.
    using Post = std::function<bool(const std::string& receiver, Framework::Message* message)>;

    Delivery(Post post, NamesBelow names_below, Counters& counters, Now now = Clock::now);

    void Add(PendingChange change);

    /// In a storm changes that come again and again are posted less often.
    void SetStorm(bool storm);

    /// Posts what is due, as far as the receivers have room.
    void Flush();

    /// Drops what waits for watches that were taken off.
    void DropRevoked();

    bool Empty() const;

    /// When Flush is to be called even if nothing else happens; none: not for that.
    std::optional<Clock::time_point> NextDue() const;

    /// Readable when a receiver has dealt with what it was posted: time for Flush.
    const WakeEvent& Wakes() const { return *wakes_; }

    /// Messages posted and not dealt with yet, of all receivers.
    std::size_t InFlight() const;

  private:
    struct Receiver {
        Receiver(const NamesBelow& names_below, const std::shared_ptr<const WakeEvent>& wakes)
            : queue(names_below), window(std::make_shared<SendWindow>(wakes)) {}

        PendingQueue queue;
        const std::shared_ptr<SendWindow> window;
        bool refused = false;      ///< by the last Flush
        bool repairs_due = false;  ///< once deletions turn out slow
    };

    void FlushOne(const std::string& id, Receiver& receiver);
    void Settle(Receiver& receiver);
    bool PostOne(const std::string& id, Receiver& receiver, const PendingChange& change);

    const Post post_;
    const NamesBelow names_below_;
    Counters& counters_;
    const Now now_;
    const std::shared_ptr<const WakeEvent> wakes_ = std::make_shared<WakeEvent>();
    std::map<std::string, Receiver> receivers_;  ///< kept for good; ids are few
    Clock::time_point flushed_{};
};

}  // namespace Engine::FileNotify
