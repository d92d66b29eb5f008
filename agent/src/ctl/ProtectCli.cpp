#include "ctl/ProtectCli.h"

#include <CLI/CLI.hpp>
#include <memory>

#include "ctl/commands/Commands.h"
#include "ctl/commands/policies/ProtectCommands.h"

namespace Ctl {

namespace {

using Command = std::function<int(const ControlClient&)>;

std::string NotEmpty(const std::string& text) {
    return text.empty() ? "A path is not empty." : "";
}

void AddProtectOptions(CLI::App* protect, ProtectOptions& options) {
    protect->add_option("DIR", options.path, "The directory, or a single file")
        ->required()
        ->check(NotEmpty);
    protect
        ->add_option("--backup", options.backup,
                     "Where the copies go; default: a directory of its own below "
                     "/var/backups/morvane")
        ->type_name("DIR")
        ->check(NotEmpty);
    protect
        ->add_option("--exclude", options.excluded,
                     "Leave this subdirectory alone, relative to DIR; may be repeated")
        ->type_name("SUBDIR")
        ->allow_extra_args(false);
    protect
        ->add_option("--ignore", options.suffixes,
                     "Leave files alone whose names end so, such as .log; may be repeated")
        ->type_name("SUFFIX")
        ->allow_extra_args(false);
    protect->add_flag("--report-only", options.report_only, "Raise alarms and undo nothing");
    protect->add_flag("--dry-run", options.dry_run, "Show what would be done and change nothing");
    protect->add_flag("--yes", options.yes, "Do not ask");
    protect->add_option("--key", options.key, kKeyMeaning)->type_name("FILE");
}

}  // namespace

void DefineProtect(CLI::App& app, Command& command) {
    const auto options = std::make_shared<ProtectOptions>();
    CLI::App* protect = app.add_subcommand(
        "protect", "Protect a directory or a file: look at it, ask, make the first copy");
    AddProtectOptions(protect, *options);
    protect->footer(
        "Other protected paths stay. Ctrl-C while it waits leaves the protection on.\n"
        "Exit codes: 0 protected, 1 failed or declined, 2 wrong usage, 3 in force but off or "
        "paused, 4 refused, 5 no agent, 130 interrupted.");
    protect->fallthrough()->callback([&command, options] {
        command = [options](const ControlClient& client) { return Protect(client, *options); };
    });
    const auto leaving = std::make_shared<UnprotectOptions>();
    CLI::App* unprotect =
        app.add_subcommand("unprotect", "End the protection of a path; its copies stay");
    unprotect->add_option("DIR", leaving->path, "As the policy names it")
        ->required()
        ->check(NotEmpty);
    unprotect->add_flag("--yes", leaving->yes, "Do not ask");
    unprotect->add_option("--key", leaving->key, kKeyMeaning)->type_name("FILE");
    unprotect->footer(
        "Exit codes: 0 done, 1 failed or declined, 2 wrong usage, 4 refused, 5 no agent.");
    unprotect->fallthrough()->callback([&command, leaving] {
        command = [leaving](const ControlClient& client) { return Unprotect(client, *leaving); };
    });
}

}  // namespace Ctl
