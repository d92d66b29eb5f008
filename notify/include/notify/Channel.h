#pragma once

#include <json/value.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "notify/Message.h"
#include "notify/Pacer.h"
#include "notify/Settings.h"

namespace Notify {

/// Which reports a delivery has.
struct Delivery {
    long long first_seq = 0;
    long long last_seq = 0;
    long long lost = 0;  ///< reports that the store dropped before
    bool is_digest = false;
};

/// One way to tell somebody. Collects alarms and delivers them together; knows neither the store
/// nor the time. Not thread-safe.
class Channel {
  public:
    virtual ~Channel() = default;

    virtual void Add(const Json::Value& report) = 0;

    /// Blocks as the senders do. Empty when it has been delivered, else why not; what was collected
    /// stays until Clear.
    virtual std::string Deliver(const Delivery& delivery) = 0;
    virtual void Clear() = 0;

    /// Delivers a test, without what was collected.
    virtual std::string Test() = 0;
};

/// A channel that is on.
struct ChannelPlan {
    std::string name;  ///< "webhook"
    std::string to;    ///< for people; without secrets
    Pacing pacing;
    std::function<std::unique_ptr<Channel>()> make;
    /// Whether anybody wants deliveries now; the channel reads nothing meanwhile. Null: always.
    std::function<bool()> is_wanted = nullptr;
};

/// Answers the protected paths, which hold incidents together. Any thread.
using RootsOf = std::function<std::vector<std::string>()>;

/// The channels that the settings switch on.
std::vector<ChannelPlan> PlanChannels(const Settings& settings, const Origin& origin,
                                      const RootsOf& roots);

/// The channel "hook": runs the program `file` with the paths of undone changes on its standard
/// input, each ended by a NUL byte.
ChannelPlan PlanHook(const std::string& file, int timeout_seconds);

}  // namespace Notify
