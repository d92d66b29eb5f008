// Hands decisions on approved states to the agent and waits for their end. It must not touch a site
// or a manifest itself.
#include <Poco/Net/HTTPRequest.h>
#include <poll.h>
#include <sdk/text/JsonUtils.h>
#include <sdk/text/PercentCode.h>
#include <unistd.h>

#include <iostream>

#include "ctl/baselines/ApprovedStates.h"
#include "ctl/client/ExitCodes.h"
#include "ctl/commands/Commands.h"
#include "ctl/commands/baselines/BaselineCommands.h"
#include "ctl/output/Question.h"
#include "ctl/output/Terminal.h"

namespace Ctl {

using Poco::Net::HTTPRequest;
using SDK::JsonUtils;

namespace {

constexpr int kSubmitTimeoutS = 30;
constexpr int kPollMs = 200;
constexpr int kAccepted = 202;
constexpr char kErase[] = "\r\033[K";

/// The state of a request on one line of the terminal, until it is erased.
class StateLine {
  public:
    StateLine() = default;
    StateLine(const StateLine&) = delete;
    StateLine& operator=(const StateLine&) = delete;
    ~StateLine() {
        if (is_shown_) std::cerr << kErase << std::flush;
    }
    void Show(const Json::Value& progress) {
        if (!is_terminal_) return;
        std::cerr << kErase << Printable(JsonUtils::GetStringValue(progress, "state", ""));
        const Json::Value& objects = progress["objects"];
        if (objects.isInt64() && objects.asInt64() > 0)
            std::cerr << ", " << objects.asInt64() << " objects";
        std::cerr << std::flush;
        is_shown_ = true;
    }

  private:
    const bool is_terminal_ = ::isatty(STDERR_FILENO) != 0;
    bool is_shown_ = false;
};

/// The answer to the last question: it ended, or could not be asked.
Answer AwaitEnd(const ControlClient& client, long long id) {
    StateLine line;
    while (true) {
        Answer answer = client.Get("/v1/baseline/requests/" + std::to_string(id));
        if (answer.kind != Answer::Kind::kAnswered || answer.status != 200) return answer;
        const std::string state = JsonUtils::GetStringValue(answer.body, "state", "");
        if (state != "waiting" && state != "running") return answer;
        line.Show(answer.body);
        ::poll(nullptr, 0, kPollMs);
    }
}

int Await(const ControlClient& client, long long id) {
    const Answer answer = AwaitEnd(client, id);
    if (answer.kind != Answer::Kind::kAnswered || answer.status != 200) return PrintFailure(answer);
    const bool is_done = JsonUtils::GetStringValue(answer.body, "state", "") == "done";
    (is_done ? std::cout : std::cerr)
        << Printable(JsonUtils::GetStringValue(answer.body, "message", "")) << std::endl;
    return is_done ? kExitOk : kExitFailed;
}

Json::Value RequestOf(const DecisionOptions& options, const std::vector<std::string>& paths) {
    Json::Value request;
    request["paths"] = Json::Value(Json::arrayValue);
    for (const std::string& path : paths) request["paths"].append(SDK::PercentEncode(path));
    request["all"] = options.all;
    if (options.generation == 0) return request;
    request["generation"] = options.generation;
    request["dry_run"] = options.is_dry_run;
    return request;
}

std::vector<std::string> Resolve(std::vector<std::string> paths) {
    if (paths.empty()) return paths;
    const ApprovedStates states;
    for (std::string& path : paths) path = states.Resolve(path);
    return paths;
}

bool IsConfirmed(const std::string& question) {
    if (!IsAtTerminal()) {
        std::cerr << "Nothing was done: without a terminal, --yes is needed." << std::endl;
        return false;
    }
    if (Confirm(question)) return true;
    std::cerr << "Nothing was done." << std::endl;
    return false;
}

}  // namespace

int Decide(const ControlClient& client, const DecisionOptions& options) {
    const std::vector<std::string> paths = Resolve(options.paths);
    const int lent = LendKey(client, options.key);
    if (lent != kExitOk) return lent;
    const Answer answer =
        client.Send(HTTPRequest::HTTP_POST, "/v1/baseline/" + options.action,
                    JsonUtils::JsonToString(RequestOf(options, paths)), kSubmitTimeoutS);
    if (answer.kind != Answer::Kind::kAnswered) return PrintFailure(answer);
    const Json::Value& id = answer.body["id"];
    if (answer.status == kAccepted && id.isInt64()) return Await(client, id.asInt64());
    PrintFailure(answer);
    return answer.status >= 400 && answer.status < 500 ? kExitRejected : kExitFailed;
}

int RollBack(const ControlClient& client, DecisionOptions options, bool is_confirmed) {
    if (options.paths.empty()) {
        const ApprovedStates states;
        const std::vector<Baseline::Generation> known = ProtectedStates(states).states;
        if (known.size() > 1) {
            std::cerr << "There are several protected paths; name one." << std::endl;
            return kExitUsage;
        }
        if (!known.empty()) options.paths.push_back(LiveRoot(known.front().manifest->Info()));
    }
    const std::string path = options.paths.empty() ? "the site" : Printable(options.paths.front());
    if (!is_confirmed && !options.is_dry_run &&
        !IsConfirmed("Roll " + path + " back to generation " + std::to_string(options.generation) +
                     "?")) {
        return kExitFailed;
    }
    return Decide(client, options);
}

}  // namespace Ctl
