#pragma once

#include <fleet/BrokerClient.h>
#include <json/value.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "centre/Delivery.h"
#include "store/FleetStore.h"
#include "store/RolloutStore.h"

namespace Collector {

/// What hosts answered to a rollout so far, within its present wave and all earlier ones.
struct RolloutProgress {
    int waves = 1;
    int hosts = 0;
    int sent = 0;
    int answered = 0;  ///< with this document, and not "pending"
    int failed = 0;    ///< rejected, refused or failed
    bool is_wave_sent = false;
    bool is_wave_answered = false;
    std::string failure;  ///< of one host of the present wave; empty: none
};

RolloutProgress ProgressOf(const Rollout& rollout, const std::vector<RolloutHost>& hosts);

/// The host's answer to this document; null: none yet.
Json::Value AnswerOf(const Rollout& rollout, const RolloutHost& host);

/// For people and scripts; without the document.
Json::Value ToJson(const Rollout& rollout, const RolloutProgress& progress);

/// Stores the delivery for the hosts that it names, in waves (WavesOf; an act in one). 0 when no
/// known host is meant, below 0 when the store fails; else the number of hosts.
int Enqueue(const Delivery& delivery, const std::vector<HostRecord>& known, int percent,
            RolloutStore& store, Rollout& rollout);

/// The wave of each of `count` hosts: the first `percent` of them, at least one, then all others.
/// 100: one wave.
std::vector<int> WavesOf(std::size_t count, int percent);

/// Publishes rollouts wave by wave. The next wave follows when all hosts of the last have taken the
/// document and some time has passed. A rejection, a missing answer or a rise of alarms stops it.
/// Everything is in the store, so it goes on after a restart. Not thread-safe.
class Rollouts {
  public:
    /// False when the message cannot be sent now.
    using Publish = std::function<bool(const Fleet::Message& message)>;
    struct Times {
        std::int64_t soak_ms = 15'000;     ///< between the last answer of a wave and the next wave
        std::int64_t answer_ms = 300'000;  ///< hosts have so long to answer
        std::int64_t resend_ms = 5'000;    ///< after a new connection
    };

    /// Borrows the store, which is open.
    Rollouts(RolloutStore& store, Times times, Publish publish);

    /// A new connection to the broker: what was sent on the last one may be lost. Soon, when the
    /// broker has handed over the answers that it kept, Work sends again what has none.
    void Restart(std::int64_t now_ms) { resend_ms_ = now_ms + times_.resend_ms; }

    /// Goes on by one step. `now_ms`: since the epoch.
    void Work(std::int64_t now_ms);

  private:
    void Advance(const Rollout& rollout, std::int64_t now_ms);
    void Send(const Rollout& rollout, const std::vector<RolloutHost>& hosts, std::int64_t now_ms);
    void SendAgain(const Rollout& rollout, std::int64_t now_ms);
    std::string WhyStop(const Rollout& rollout, const RolloutProgress& progress,
                        std::int64_t now_ms);

    RolloutStore& store_;
    const Times times_;
    const Publish publish_;
    std::int64_t resend_ms_ = 0;  ///< 0: nothing is to be sent again
};

}  // namespace Collector
