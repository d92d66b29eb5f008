// Deploys that are no single command: the overlay is mounted until it is committed or aborted. It
// must not take changes into a site: the agent does.
#include <sdk/text/JsonUtils.h>
#include <unistd.h>

#include <iostream>

#include "ctl/commands/Commands.h"
#include "ctl/commands/deploys/DeployCommands.h"
#include "ctl/commands/deploys/DeploySteps.h"
#include "ctl/output/Question.h"
#include "ctl/output/Terminal.h"

namespace Ctl {

using SDK::JsonUtils;

namespace {

constexpr char kNeedsRoot[] = "A deploy needs root; try with sudo.";

std::string Line(const Json::Value& deploy) {
    const auto text = [&](const char* key) {
        return Printable(JsonUtils::GetStringValue(deploy, key, ""));
    };
    const long long now_ms = 0;  // the whole date
    return text("id") + "  " + text("path") + "  " + text("state") + "  until " +
           ShortTime(deploy["until"].asInt64() * 1000, now_ms) + "  user " +
           deploy["user"].asString() + ", process " + deploy["process"].asString() + "  " +
           text("tree") + "  " + text("reason");
}

/// Mounts the deploy's files at its "tree". A sentence when that fails.
std::string MountTree(const OpenDeploy& deploy) {
    const std::string mount = Overlay::ForeignMount(deploy.plan);
    if (mount.empty()) return Overlay(deploy.plan).MountAtTree();
    return "Another file system is mounted at " + mount +
           "; a deploy would not hold what is changed there.";
}

}  // namespace

int BeginDeploy(const ControlClient& control, const DeployOptions& options) {
    if (::geteuid() != 0) return Refuse(kNeedsRoot);
    const DeployClient client(control);
    Json::Value request = OperationOn(options.path, options.limit, options.reason);
    request["tree"] = true;
    OpenDeploy deploy;
    Answer answer;
    if (!client.Begin(request, deploy, answer)) return Refused(answer);
    client.DetachLeftOvers(deploy);
    const std::string problem = MountTree(deploy);
    if (!problem.empty()) {
        client.Ask("abort", deploy.id);
        return Refuse(problem);
    }
    std::cout << deploy.id << "\n" << deploy.plan.directory << "/tree" << std::endl;
    if (std::cout) return kExitOk;
    // Nobody knows its id.
    client.Ask("abort", deploy.id);
    Overlay(deploy.plan).DetachTree();
    return Refuse("Nothing was begun.", kExitFailed);
}

int CommitDeploy(const ControlClient& control, const std::string& id, bool yes,
                 const std::string& key) {
    if (::geteuid() != 0) return Refuse(kNeedsRoot);
    if (!yes && !IsAtTerminal()) {
        return Refuse("There is no terminal to confirm the changes at; give --yes.");
    }
    if (LendKey(control, key) != kExitOk) return Refuse("The deploy stays open.");
    OpenDeploy deploy;
    Answer answer;
    if (!DeployClient(control).Show(id, deploy, answer)) return Refused(answer);
    const Overlay overlay(deploy.plan);
    const std::string busy = overlay.UnmountTree();
    if (!busy.empty()) return Refuse(busy + " The deploy stays open.", kExitNotDeployed);
    const long changes = PrintStaged(deploy);
    const bool is_wanted = changes == 0 || (changes > 0 && (yes || Confirm("Deploy this?")));
    if (is_wanted) return CommitAndAwait(control, deploy, key);
    const std::string problem = overlay.MountAtTree();
    if (!problem.empty()) std::cerr << problem << std::endl;
    return Refuse("The deploy stays open.", changes < 0 ? kExitNotDeployed : kExitDeclined);
}

int MountDeploy(const ControlClient& control, const std::string& id) {
    if (::geteuid() != 0) return Refuse(kNeedsRoot);
    OpenDeploy deploy;
    Answer answer;
    if (!DeployClient(control).Show(id, deploy, answer)) return Refused(answer);
    // Mounted once: a second one would hide what was changed in the first.
    const std::string busy = Overlay(deploy.plan).UnmountTree();
    const std::string problem = busy.empty() ? MountTree(deploy) : busy;
    if (!problem.empty()) return Refuse(problem, kExitNotDeployed);
    std::cout << deploy.plan.directory << "/tree" << std::endl;
    return std::cout ? kExitOk : kExitFailed;
}

int AbortDeploy(const ControlClient& control, const std::string& id) {
    if (::geteuid() != 0) return Refuse(kNeedsRoot);
    const DeployClient client(control);
    OpenDeploy deploy;
    Answer answer;
    if (!client.Show(id, deploy, answer)) return Refused(answer);
    answer = client.Ask("abort", id);
    if (answer.kind != Answer::Kind::kAnswered || answer.status != 200) return Refused(answer);
    Overlay(deploy.plan).DetachTree();
    std::cout << "Nothing of the deploy is kept." << std::endl;
    return kExitOk;
}

int ListDeploys(const ControlClient& control, bool json) {
    const Answer answer =
        DeployClient(control).Ask("deploy", "list", Json::Value(Json::objectValue));
    if (answer.kind != Answer::Kind::kAnswered || answer.status != 200) return Refused(answer);
    for (const Json::Value& deploy : answer.body["deploys"]) {
        std::cout << (json ? JsonUtils::JsonToString(deploy) : Line(deploy)) << "\n";
    }
    if (!json && answer.body["deploys"].empty()) std::cout << "No deploy is open.\n";
    std::cout << std::flush;
    return kExitOk;
}

}  // namespace Ctl
