// The steps of a deploy, as an operator sees them. It must not take changes into a site: the agent
// does.
#include "ctl/commands/deploys/DeployCommands.h"

#include <fcntl.h>
#include <sdk/files/FileDescriptor.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "ctl/commands/Commands.h"
#include "ctl/commands/deploys/DeploySteps.h"
#include "ctl/deploy/CommandRun.h"
#include "ctl/deploy/DeployClient.h"
#include "ctl/output/Question.h"

namespace Ctl {

namespace {

constexpr char kNothingChanged[] = " Nothing was changed.";

/// Locks the deploy as long as this process, or the one that runs the command, lives.
SDK::FileDescriptor LockOf(const OpenDeploy& deploy) {
    SDK::FileDescriptor lock(
        ::open((deploy.plan.directory + "/lock").c_str(), O_RDONLY | O_CLOEXEC));
    // The agent tries the lock now and then, for a moment.
    if (lock.IsOpen() && ::flock(lock.Get(), LOCK_EX) != 0) lock.Reset();
    return lock;
}

/// The exit code of a command that did not succeed; prints why.
int CodeOf(const CommandEnd& end, const DeployOptions& options) {
    const std::string command = options.command.front();
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
            return Refuse(end.problem + kNothingChanged, kExitNotDeployed);
    }
}

/// After the command: what becomes of its changes.
int Finish(const ControlClient& control, const OpenDeploy& deploy, const DeployOptions& options) {
    const DeployClient client(control);
    const long changes = PrintStaged(deploy);
    const bool is_read = changes >= 0;
    if (is_read && !options.dry_run && (changes == 0 || options.yes || Confirm("Deploy this?"))) {
        return CommitAndAwait(control, deploy, options.key);
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
    // The agent keeps a key for a minute only, so it gets it again for the commit.
    if (LendKey(control, options.key) != kExitOk) return Refuse("The command was not started.");
    const DeployClient client(control);
    OpenDeploy deploy;
    Answer answer;
    if (!client.Begin(OperationOn(options.path, options.limit, options.reason), deploy, answer)) {
        return Refused(answer);
    }
    const SDK::FileDescriptor lock = LockOf(deploy);
    if (!lock.IsOpen()) return Refuse("The deploy cannot be locked.");
    client.DetachLeftOvers(deploy);
    const CommandEnd end = RunInOverlay(deploy.plan, options.command, options.limit);
    if (end.kind == CommandEnd::Kind::kExited && end.code == 0) {
        return Finish(control, deploy, options);
    }
    client.Ask("abort", deploy.id);
    return CodeOf(end, options);
}

}  // namespace Ctl
