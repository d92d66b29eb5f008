// The steps of a deploy, as an operator sees them. It must not take changes into a site: the agent
// does.
#include "ctl/commands/DeployCommands.h"

#include <fcntl.h>
#include <sdk/files/FileDescriptor.h>
#include <sdk/text/JsonUtils.h>
#include <sdk/text/PercentCode.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <iostream>

#include "ctl/baselines/ApprovedStates.h"
#include "ctl/baselines/DifferenceFormat.h"
#include "ctl/client/ExitCodes.h"
#include "ctl/commands/BaselineCommands.h"
#include "ctl/commands/Commands.h"
#include "ctl/deploy/CommandRun.h"
#include "ctl/deploy/DeployClient.h"
#include "ctl/output/Question.h"
#include "ctl/output/Terminal.h"

namespace Ctl {

using SDK::JsonUtils;

namespace {

constexpr int kOk = 200;
constexpr char kNothingChanged[] = " Nothing was changed.";

int Refuse(const std::string& sentence, int code = kExitRefused) {
    std::cerr << sentence << std::endl;
    return code;
}

/// Prints why the agent did not do it.
int Refused(const Answer& answer) {
    const int code = PrintFailure(answer);
    return answer.kind == Answer::Kind::kAnswered ? kExitRefused : code;
}

/// Locks the deploy as long as this process, or the one that runs the command, lives.
SDK::FileDescriptor LockOf(const OpenDeploy& deploy) {
    SDK::FileDescriptor lock(
        ::open((deploy.plan.directory + "/lock").c_str(), O_RDONLY | O_CLOEXEC));
    if (lock.IsOpen()) ::flock(lock.Get(), LOCK_EX | LOCK_NB);
    return lock;
}

/// The exit code of a command that did not succeed; prints why.
int CodeOf(const CommandEnd& end, const DeployOptions& options) {
    const std::string command = Printable(options.command.front());
    switch (end.kind) {
        case CommandEnd::Kind::kExited:
            return Refuse(
                command + " ended with code " + std::to_string(end.code) + "." + kNothingChanged,
                end.code);
        case CommandEnd::Kind::kSignalled:
            return Refuse(command + " was ended by signal " + std::to_string(end.code) + "." +
                              kNothingChanged,
                          kExitSignal + end.code);
        case CommandEnd::Kind::kCannotExecute:
            return Refuse(
                command + " cannot be executed: " + std::strerror(end.code) + "." + kNothingChanged,
                end.code == ENOENT ? kExitNotFound : kExitNotExecutable);
        case CommandEnd::Kind::kTimedOut:
            return Refuse(command + " took longer than " + std::to_string(options.limit.count()) +
                              " seconds and was ended." + kNothingChanged,
                          kExitTimedOut);
        case CommandEnd::Kind::kInterrupted:
            return Refuse(command + " was ended by an interrupt." + std::string(kNothingChanged),
                          kExitSignal + end.code);
        default:
            return Refuse(Printable(end.problem) + kNothingChanged, kExitNotDeployed);
    }
}

/// The changes on standard output; how many there are, or a negative number.
long PrintStaged(const OpenDeploy& deploy) {
    DifferenceList list(ListingOptions::kDefaultLimit);
    const std::string problem = ListStaged(deploy, list);
    if (!problem.empty()) {
        std::cerr << Printable(problem) << kNothingChanged << std::endl;
        return -1;
    }
    WriteDifferences(std::cout, list, false);
    if (list.Total() > 0) std::cout << CountsOf(list) << std::endl;
    return static_cast<long>(list.Total());
}

int Commit(const DeployClient& client, const std::string& id) {
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
    return is_done ? kExitOk : kExitNotDeployed;
}

Json::Value RequestOf(const std::string& path, std::chrono::seconds limit,
                      const std::string& reason) {
    Json::Value request(Json::objectValue);
    request["path"] = SDK::PercentEncode(ApprovedStates().Resolve(path));
    request["seconds"] = static_cast<Json::Int>(limit.count());
    request["reason"] = reason;
    return request;
}

/// After the command: what becomes of its changes.
int Finish(const DeployClient& client, const OpenDeploy& deploy, const DeployOptions& options) {
    const long changes = PrintStaged(deploy);
    const bool is_read = changes >= 0;
    if (is_read && !options.dry_run && (changes == 0 || options.yes || Confirm("Deploy this?"))) {
        return Commit(client, deploy.id);
    }
    client.Ask("abort", deploy.id);
    if (!is_read) return kExitNotDeployed;
    if (options.dry_run) return kExitOk;
    return Refuse("Nothing was changed.", kExitDeclined);
}

}  // namespace

int RunDeploy(const ControlClient& control, const DeployOptions& options) {
    if (::geteuid() != 0) return Refuse("A deploy needs root; try with sudo.");
    if (!options.yes && !options.dry_run && !IsAtTerminal()) {
        return Refuse("There is no terminal to confirm the changes at; give --yes or --dry-run.");
    }
    const DeployClient client(control);
    OpenDeploy deploy;
    Answer answer;
    if (!client.Begin(RequestOf(options.path, options.limit, options.reason), deploy, answer)) {
        return Refused(answer);
    }
    const SDK::FileDescriptor lock = LockOf(deploy);
    const CommandEnd end = RunInOverlay(deploy.plan, options.command, options.limit);
    if (end.kind == CommandEnd::Kind::kExited && end.code == 0) {
        return Finish(client, deploy, options);
    }
    client.Ask("abort", deploy.id);
    return CodeOf(end, options);
}

}  // namespace Ctl
