#pragma once

#include <json/value.h>
#include <sdk/text/SigningKey.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "base/SentrelDirRule.h"

namespace Engine {

/// A decision of an operator about changes of the approved state.
struct OperatorRequest {
    enum class Action {
        kAccept,    ///< the present state is approved
        kRestore,   ///< the approved state is put back
        kRollback,  ///< an older approved state is approved again, and put back
    };
    std::uint64_t id = 0;
    Action action = Action::kAccept;
    bool all = false;
    std::vector<std::string> paths = {};  ///< absolute; empty with `all`
    unsigned int generation = 0;          ///< to roll back to
    bool is_dry_run = false;              ///< of a rollback: only tells what would be changed
    std::string so_far = {};              ///< a sentence: what is done already
    std::shared_ptr<const SDK::SigningKey> key = {};  ///< private; null: the one that is kept here
    uid_t user = 0;
    pid_t process = 0;
    std::string signer = {};  ///< of a request from a fleet's centre; else empty

    /// What the request wants of the rule: paths relative to the protected path, "" for all of it.
    std::vector<std::string> PartsOf(const SentrelDirRule& rule) const;
    /// "user 0, process 4711", or "user 0, process 4711, signed by NAME"
    std::string By() const;
};

/// Hands an operator's decisions from the control API to the tasks that carry them out. Remembers
/// the last ones. Owned by ModuleState. Thread-safe.
class OperatorRequests {
  public:
    /// The answer to the query "baseline.request": {"id"} or {"error"}. `key` is forgotten when the
    /// request ends.
    Json::Value Submit(const Json::Value& request,
                       std::shared_ptr<const SDK::SigningKey> key = nullptr);

    /// The answer to the query "baseline.progress":
    /// {"state","message","objects","generation"}, where the state is "waiting", "running", "done"
    /// or "failed"; or {"error"}.
    Json::Value Progress(const Json::Value& request) const;

    /// The oldest waiting request of that kind, which runs from now on.
    std::optional<OperatorRequest> Take(OperatorRequest::Action action);

    struct Result {
        bool is_done = false;  ///< otherwise it failed
        std::string message;   ///< a sentence
        std::size_t objects = 0;
        unsigned int generation = 0;  ///< 0: no new one
    };
    void End(std::uint64_t id, const Result& result);

    /// A rollback has made the copies what they were: `so_far` says so, and the site is to be put
    /// back from them.
    void GoOnWithRestore(std::uint64_t id, unsigned int generation, const std::string& so_far);

    /// Fails all that have not ended.
    void FailAll(const std::string& message);

  private:
    static constexpr std::size_t kRemembered = 64;
    static constexpr std::size_t kMostWaiting = 16;
    struct Known {
        OperatorRequest request;
        const char* state = "waiting";
        Result result;
    };

    Known* Find(std::uint64_t id);

    mutable std::mutex mutex_;  ///< guards all below
    std::deque<Known> known_;
    std::uint64_t last_id_ = 0;
};

}  // namespace Engine
