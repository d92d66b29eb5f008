#pragma once

#include <fleet/SignedAct.h>
#include <json/value.h>
#include <sdk/time/CommandInterrupter.h>

#include <functional>
#include <future>
#include <optional>
#include <string>
#include <vector>

namespace Engine {

/// How an act ended.
struct ActOutcome {
    bool is_done = false;  ///< otherwise it failed
    std::string message;   ///< a sentence
    Json::Value details;   ///< null, or an object of the act's own
};

/// Carries out one act at a time with the queries that answer morvanectl, too, so the same checks
/// hold. Not thread-safe.
class ActRunner {
  public:
    /// Queries of the agent. False when nobody answers.
    using Ask =
        std::function<bool(const std::string& query, const Json::Value&, Json::Value& answer)>;
    /// Runs morvanectl with these arguments until it ends; its exit code. Called on a thread, whose
    /// SDK::CommandInterrupter ends it.
    using RunCtl =
        std::function<int(const std::vector<std::string>& arguments, std::string& output)>;

    ActRunner(Ask ask, RunCtl run_ctl);

    /// Ends a comparison that is under way.
    ~ActRunner();
    ActRunner(const ActRunner&) = delete;
    ActRunner& operator=(const ActRunner&) = delete;

    bool IsBusy() const { return is_busy_; }

    /// Begins; Poll tells how it ends. Never waits. Only when it is not busy.
    void Start(const Fleet::SignedAct& act);

    /// The outcome, once; none while it runs.
    std::optional<ActOutcome> Poll();

  private:
    void Decide(const Fleet::SignedAct& act);
    void Pause(const Fleet::SignedAct& act);
    void Deploy(const Fleet::SignedAct& act);
    void Check(const Fleet::SignedAct& act);
    void Verify(const Fleet::SignedAct& act);
    bool AskOrFail(const std::string& query, const Json::Value& request, Json::Value& answer);
    std::string MountOf(const std::string& id) const;
    std::optional<ActOutcome> Follow();
    void Fail(const std::string& sentence);
    void Succeed(const std::string& sentence, Json::Value details = {});

    const Ask ask_;
    const RunCtl run_ctl_;
    bool is_busy_ = false;
    std::optional<ActOutcome> outcome_;
    std::string progress_query_;  ///< empty: nothing to follow
    Json::Value progress_;
    SDK::CommandInterrupter interrupter_;
    std::future<ActOutcome> verification_;  ///< its end waits until morvanectl has ended
};

}  // namespace Engine
