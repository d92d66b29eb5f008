#include "ctl/DeployCli.h"

#include <CLI/CLI.hpp>
#include <memory>
#include <string>

#include "ctl/commands/DeployCommands.h"

namespace Ctl {

namespace {

using Command = std::function<int(const ControlClient&)>;

constexpr char kDeployCodes[] =
    "The site changes only after COMMAND has succeeded. Exit codes: 0 deployed, or nothing to do; "
    "the code of COMMAND when it fails; 2 wrong usage; 5 no agent; 122 refused before it was "
    "started; 123 not confirmed; 124 timed out; 125 not deployed for another reason; 126 cannot be "
    "executed; 127 not found; 128+N ended by signal N.";

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
    deploy->footer(kDeployCodes);
    deploy->fallthrough()->callback([deploy, &command, options] {
        if (!deploy->get_subcommands().empty()) return;
        if (options->path.empty()) throw CLI::RequiredError("PATH");
        if (options->command.empty()) throw CLI::RequiredError("COMMAND");
        command = [options](const ControlClient& client) { return RunDeploy(client, *options); };
    });
}

}  // namespace

void DefineDeploy(CLI::App& app, Command& command) {
    CLI::App* deploy = app.add_subcommand(
        "deploy", "Change a protected directory: all that a command changes, or nothing");
    DefineRun(deploy, command);
}

}  // namespace Ctl
