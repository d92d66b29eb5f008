#pragma once

#include <fleet/SignedAct.h>
#include <json/value.h>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>

#include "ActRunner.h"

namespace Engine {

/// Takes signed acts from the broker: verifies them, refuses those that are wrong, repeated,
/// expired or signed for others, has the others carried out one by one, and answers. What was taken
/// is kept in `file`, so that nothing is carried out twice. Not thread-safe.
///
/// The broker is hostile: a bounded number of acts waits, and at most five a second are verified.
class ActReceiver {
  public:
    struct Hooks {
        /// Publishes the answer to the act of that number.
        std::function<void(const std::string& number, const Json::Value& result)> answer;
        /// Reports a refused act; at most once a minute.
        std::function<void(const std::string& number, const std::string& why)> tell_refusal;
        /// Reports an act that has ended.
        std::function<void(const Json::Value& result)> record;
    };

    /// `key` is the operator's public key; null: every act is refused.
    ActReceiver(Fleet::Identity host, std::shared_ptr<const SDK::SigningKey> key, std::string file,
                std::unique_ptr<ActRunner> runner, Hooks hooks);

    /// A new connection: the broker sends in any order what it has retained, and Work waits a
    /// moment for all of it. `now_ms`: monotonic.
    void Restart(std::int64_t now_ms) { settled_ms_ = now_ms + kSettleMs; }

    /// A document arrived on the topic of that number. `is_retained`: the broker had it already
    /// when this connection began.
    void Take(const std::string& number, std::string&& document, bool is_retained);

    /// Goes on by one step; never waits. `now_ms`: monotonic; `now_s`: since the epoch.
    void Work(std::int64_t now_ms, std::int64_t now_s);

    std::int64_t Refused() const { return refused_; }

  private:
    static constexpr std::int64_t kSettleMs = 1'000;
    struct Waiting {
        std::string document;
        bool is_retained = false;
    };

    void Load();
    bool Save() const;
    void Examine(std::int64_t number, const Waiting& waiting, std::int64_t now_ms,
                 std::int64_t now_s);
    bool IsKnown(std::int64_t number, const std::string& digest, bool is_retained,
                 std::int64_t now_ms);
    std::string WhyNot(const Fleet::SignedAct& act, std::int64_t number, std::int64_t now_s) const;
    void Refuse(std::int64_t number, Json::Value result, const std::string& why,
                std::int64_t now_ms);
    void Report(const std::string& number, const std::string& why, std::int64_t now_ms);
    void Begin(const Fleet::SignedAct& act, Json::Value result);
    void Finish(const ActOutcome& outcome, std::int64_t now_s);
    void Keep(const Json::Value& result);

    const Fleet::Identity host_;
    const std::shared_ptr<const SDK::SigningKey> key_;
    const std::string file_;
    const std::unique_ptr<ActRunner> runner_;
    const Hooks hooks_;
    std::map<std::int64_t, Waiting> waiting_;  ///< by number: the smallest comes first
    Json::Value taken_{Json::objectValue};     ///< {"last", "acts": {number: result}}
    Json::Value running_;                      ///< the result so far
    std::int64_t settled_ms_ = 0;
    std::int64_t examined_ms_ = 0;
    std::int64_t told_ms_ = 0;
    std::int64_t refused_ = 0;
};

}  // namespace Engine
