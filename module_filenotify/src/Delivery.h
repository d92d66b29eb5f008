#pragma once

#include <framework/Message.h>

#include <functional>
#include <map>
#include <memory>
#include <string>

#include "Counters.h"
#include "PendingQueue.h"

namespace Engine::FileNotify {

/// Hands changes to their receivers as FileNotifyMessage, in order; what a receiver cannot take now
/// waits here. Task's thread only.
class Delivery {
  public:
    /// Queues a message for a task; false: not now, and the message stays the caller's.
    using Post = std::function<bool(const std::string& receiver, Framework::Message* message)>;

    Delivery(Post post, Counters& counters) : post_(std::move(post)), counters_(counters) {}

    void Add(PendingChange change);

    /// Posts what the receivers take.
    void Flush();

    bool Empty() const { return queues_.empty(); }

  private:
    bool FlushOne(const std::string& receiver, PendingQueue& queue);

    Post post_;
    Counters& counters_;
    std::map<std::string, PendingQueue> queues_;
};

}  // namespace Engine::FileNotify
