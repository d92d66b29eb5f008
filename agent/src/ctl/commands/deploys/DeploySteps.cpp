// Steps that several commands on deploys share.
#include "ctl/commands/deploys/DeploySteps.h"

#include <poll.h>
#include <sdk/text/JsonUtils.h>
#include <sdk/text/PercentCode.h>

#include <filesystem>
#include <iostream>
#include <system_error>

#include "ctl/baselines/ApprovedStates.h"
#include "ctl/baselines/DifferenceFormat.h"
#include "ctl/client/ExitCodes.h"
#include "ctl/commands/Commands.h"
#include "ctl/commands/baselines/BaselineCommands.h"
#include "ctl/output/Terminal.h"

namespace Ctl {

using SDK::JsonUtils;

namespace {

constexpr int kOk = 200;
constexpr int kPollMs = 250;
constexpr int kMostPolls = 480;

/// The directory that the agent protects now for a link that leads to `target` is approved.
bool IsApproved(const Json::Value& status, const std::string& target) {
    for (const Json::Value& path : status["protected_paths"]) {
        if (JsonUtils::GetStringValue(path, "path", "") != target + "/") continue;
        return path["baseline"].isObject();
    }
    return false;
}

/// A command that has switched the release link: the agent follows it when the deploy has ended.
int AwaitRelease(const ControlClient& control, const OpenDeploy& deploy) {
    std::error_code error;
    const std::string target = std::filesystem::canonical(deploy.link, error).string();
    if (deploy.link.empty() || error || target == deploy.plan.root) return kExitOk;
    for (int i = 0; i < kMostPolls; ++i) {
        const Answer status = control.Get("/v1/status");
        if (status.kind != Answer::Kind::kAnswered) return PrintFailure(status);
        if (IsApproved(status.body, target)) {
            std::cout << Printable(deploy.link) << " leads to " << Printable(target)
                      << " now, which is approved." << std::endl;
            return kExitOk;
        }
        ::poll(nullptr, 0, kPollMs);
    }
    return Refuse(
        deploy.link + " leads to " + target + " now, which is not approved; see morvanectl status.",
        kExitNotDeployed);
}

}  // namespace

int Refuse(const std::string& sentence, int code) {
    std::cerr << Printable(sentence) << std::endl;
    return code;
}

int Refused(const Answer& answer) {
    const int code = PrintFailure(answer);
    return answer.kind == Answer::Kind::kAnswered ? kExitRefused : code;
}

long PrintStaged(const OpenDeploy& deploy) {
    DifferenceList list(ListingOptions::kDefaultLimit);
    const std::string problem = ListStaged(deploy, list);
    if (!problem.empty()) {
        std::cerr << Printable(problem) << " Nothing was changed." << std::endl;
        return -1;
    }
    WriteDifferences(std::cout, list, false);
    if (list.Total() > 0) std::cout << CountsOf(list) << std::endl;
    return static_cast<long>(list.Total());
}

int CommitAndAwait(const ControlClient& control, const OpenDeploy& deploy, const std::string& key) {
    const DeployClient client(control);
    const std::string& id = deploy.id;
    if (LendKey(control, key) != kExitOk) {
        client.Ask("abort", id);
        return Refuse("Nothing was changed.", kExitNotDeployed);
    }
    const Answer accepted = client.Ask("commit", id);
    if (accepted.kind != Answer::Kind::kAnswered || accepted.status != kOk) {
        return Refused(accepted);
    }
    const Answer end = client.AwaitEnd(id);
    if (end.kind != Answer::Kind::kAnswered || end.status != kOk) {
        std::cerr << "The deploy was accepted; an agent that ended meanwhile completes it when it "
                     "starts again.\n";
        PrintFailure(end);
        return kExitNotDeployed;
    }
    const bool is_done = JsonUtils::GetStringValue(end.body, "state", "") == "done";
    (is_done ? std::cout : std::cerr)
        << Printable(JsonUtils::GetStringValue(end.body, "message", "")) << std::endl;
    return is_done ? AwaitRelease(control, deploy) : kExitNotDeployed;
}

Json::Value OperationOn(const std::string& path, std::chrono::seconds limit,
                        const std::string& reason) {
    Json::Value request(Json::objectValue);
    request["path"] = SDK::PercentEncode(ApprovedStates().Resolve(path));
    request["seconds"] = static_cast<Json::Int>(limit.count());
    request["reason"] = reason;
    return request;
}

}  // namespace Ctl
