#include "ctl/DeployCli.h"

#include <CLI/CLI.hpp>
#include <memory>
#include <string>

#include "ctl/commands/Commands.h"
#include "ctl/commands/deploys/DeployCommands.h"

namespace Ctl {

namespace {

using Command = std::function<int(const ControlClient&)>;

constexpr char kDeployCodes[] =
    "The site changes only after COMMAND has succeeded. Exit codes: 0 deployed, or nothing to do; "
    "the code of COMMAND when it fails; 1 the output cannot be written; 2 wrong usage; 5 no agent; "
    "122 refused before it was "
    "started; 123 not confirmed; 124 timed out; 125 not deployed for another reason; 126 cannot be "
    "executed; 127 not found; 128+N ended by signal N.";

constexpr char kTreeCodes[] =
    "Exit codes: 0 done, 1 the output cannot be written, 2 wrong usage, 5 no agent, 122 refused, "
    "123 not confirmed, 125 not "
    "deployed for another reason.";

/// "90", "30s", "10m", "2h" or "1d"; 0 for anything else.
long Seconds(const std::string& text) {
    std::size_t end = 0;
    while (end < text.size() && text[end] >= '0' && text[end] <= '9') ++end;
    constexpr std::size_t kMostDigits = 7;
    if (end == 0 || end > kMostDigits || text.size() > end + 1) return 0;
    const long number = std::stol(text.substr(0, end));
    if (end == text.size()) return number;
    switch (text[end]) {
        case 's':
            return number;
        case 'm':
            return number * 60;
        case 'h':
            return number * 3600;
        case 'd':
            return number * 24 * 3600;
        default:
            return 0;
    }
}

void AddLimit(CLI::App* command, std::chrono::seconds& limit, const std::string& meaning) {
    command
        ->add_option_function<std::string>(
            "--for",
            [&limit](const std::string& text) { limit = std::chrono::seconds(Seconds(text)); },
            meaning)
        ->type_name("TIME")
        ->check([](const std::string& text) {
            constexpr long kMost = 7L * 24 * 3600;
            const long seconds = Seconds(text);
            return seconds > 0 && seconds <= kMost
                       ? std::string()
                       : std::string("A time is such as 30s, 10m or 2h, at most 7d.");
        });
}

void AddKey(CLI::App* command, std::string& key) {
    command->add_option("--key", key, kKeyMeaning)->type_name("FILE");
}

void DefineRun(CLI::App* deploy, Command& command) {
    const auto options = std::make_shared<DeployOptions>();
    deploy->add_option("PATH", options->path, "The protected directory");
    deploy->add_option("COMMAND", options->command,
                       "What changes it, with its arguments, after --");
    AddLimit(deploy, options->limit, "End COMMAND after this time (default 1h)");
    deploy->add_option("--reason", options->reason, "Kept with the approved state")
        ->type_name("TEXT");
    deploy->add_flag("--yes", options->yes, "Deploy without a question");
    deploy->add_flag("--dry-run", options->dry_run, "Only list what COMMAND changes");
    AddKey(deploy, options->key);
    deploy->footer(kDeployCodes);
    deploy->fallthrough()->callback([deploy, &command, options] {
        if (!deploy->get_subcommands().empty()) return;
        if (options->path.empty()) throw CLI::RequiredError("PATH");
        if (options->command.empty()) throw CLI::RequiredError("COMMAND");
        command = [options](const ControlClient& client) { return RunDeploy(client, *options); };
    });
}

void DefineTree(CLI::App* deploy, Command& command) {
    const auto options = std::make_shared<DeployOptions>();
    CLI::App* begin = deploy->add_subcommand(
        "begin", "Mount what can be changed, for several commands; prints id and directory");
    begin->add_option("PATH", options->path, "The protected directory")->required();
    AddLimit(begin, options->limit, "Abort it after this time (default 1h)");
    begin->add_option("--reason", options->reason, "Kept with the approved state");
    begin->fallthrough()->callback([&command, options] {
        command = [options](const ControlClient& client) { return BeginDeploy(client, *options); };
    });
    const auto id = std::make_shared<std::string>();
    const auto yes = std::make_shared<bool>(false);
    CLI::App* commit = deploy->add_subcommand("commit", "Deploy what was changed there");
    commit->add_option("ID", *id, "Of the deploy")->required();
    commit->add_flag("--yes", *yes, "Without a question");
    AddKey(commit, options->key);
    commit->fallthrough()->callback([&command, id, yes, options] {
        command = [id, yes, options](const ControlClient& client) {
            return CommitDeploy(client, *id, *yes, options->key);
        };
    });
    CLI::App* mount = deploy->add_subcommand(
        "mount", "Mount what can be changed of a deploy that a fleet's centre has begun");
    mount->add_option("ID", *id, "Of the deploy")->required();
    mount->fallthrough()->callback([&command, id] {
        command = [id](const ControlClient& client) { return MountDeploy(client, *id); };
    });
    CLI::App* abort = deploy->add_subcommand("abort", "Drop what was changed there");
    abort->add_option("ID", *id, "Of the deploy")->required();
    abort->fallthrough()->callback([&command, id] {
        command = [id](const ControlClient& client) { return AbortDeploy(client, *id); };
    });
    const auto json = std::make_shared<bool>(false);
    CLI::App* list = deploy->add_subcommand("list", "List the open deploys");
    list->add_flag("--json", *json, "One JSON object per line");
    list->fallthrough()->callback([&command, json] {
        command = [json](const ControlClient& client) { return ListDeploys(client, *json); };
    });
    for (CLI::App* one : {begin, mount, commit, abort, list}) one->footer(kTreeCodes);
}

void DefinePauses(CLI::App& app, Command& command) {
    const auto options = std::make_shared<PauseOptions>();
    CLI::App* pause =
        app.add_subcommand("pause", "Undo nothing in a protected path for a while; alarms go on");
    pause->add_option("PATH", options->path, "The protected path")->required();
    AddLimit(pause, options->limit, "End the pause after this time (default 30m)");
    pause->add_option("--reason", options->reason, "Shown in the status")->type_name("TEXT");
    pause->footer("Exit codes: 0 done, 1 failed, 2 wrong usage, 4 refused, 5 no agent.");
    pause->fallthrough()->callback([&command, options] {
        command = [options](const ControlClient& client) {
            return PauseProtection(client, *options);
        };
    });
    CLI::App* resume = app.add_subcommand("resume", "End a pause: show what was changed, decide");
    resume->add_option("PATH", options->path, "The protected path")->required();
    CLI::Option* accept = resume->add_flag("--accept", options->accept, "Approve the changes");
    resume->add_flag("--restore", options->restore, "Undo the changes")->excludes(accept);
    AddKey(resume, options->key);
    resume->footer(
        "Exit codes: 0 done, 1 failed, 2 no decision: the pause goes on (also wrong usage), 4 "
        "refused, 5 no agent.");
    resume->fallthrough()->callback([&command, options] {
        command = [options](const ControlClient& client) {
            return ResumeProtection(client, *options);
        };
    });
}

}  // namespace

void DefineDeploy(CLI::App& app, Command& command) {
    CLI::App* deploy = app.add_subcommand(
        "deploy", "Change a protected directory: all that a command changes, or nothing");
    DefineRun(deploy, command);
    DefineTree(deploy, command);
    DefinePauses(app, command);
}

}  // namespace Ctl
