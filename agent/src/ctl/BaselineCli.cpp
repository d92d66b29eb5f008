#include "ctl/BaselineCli.h"

#include <CLI/CLI.hpp>
#include <memory>
#include <string>

#include "ctl/commands/Commands.h"
#include "ctl/commands/baselines/BaselineCommands.h"

namespace Ctl {

namespace {

using Command = std::function<int(const ControlClient&)>;

constexpr char kComparisonCodes[] =
    "Exit codes: 0 equal, 2 differences (also wrong usage), 1 not everything could be compared.";

constexpr char kDecisionCodes[] =
    "Waits for the end; Ctrl-C ends only the waiting. Exit codes: 0 done, 1 failed, 2 wrong usage, "
    "4 refused, 5 no agent.";

constexpr char kRestoreCodes[] =
    "Waits for the end; Ctrl-C ends only the waiting. With --from-server it ends the fetch. Exit "
    "codes: 0 done, 1 failed, or not every copy is back, 2 wrong usage, or differences in a dry "
    "run, 4 refused, 5 no agent, 130 the fetch was interrupted.";

void AddListing(CLI::App* command, ListingOptions& listing) {
    command->add_option("--limit", listing.limit, "List at most NUMBER (default 100); 0: all")
        ->type_name("NUMBER");
    command->add_flag("--json", listing.json, "One JSON object per line");
}

CLI::Option* AddPath(CLI::App* command, std::vector<std::string>& paths, const char* meaning) {
    return command->add_option("PATH", paths, meaning)->check([](const std::string& path) {
        return path.empty() ? std::string("A path is not empty.") : std::string();
    });
}

void DefineVerify(CLI::App& app, Command& command) {
    const auto options = std::make_shared<VerifyOptions>();
    CLI::App* verify = app.add_subcommand(
        "verify",
        "List what the protected paths have differently from their approved state; "
        "needs no agent");
    AddPath(verify, options->paths, "Only this part; default: all that is protected");
    verify->add_flag("--full", options->full,
                     "Read every file; default: those that were changed since the approval");
    verify->add_flag("--copies", options->copies,
                     "Compare the backup copies instead of the site, and read every one");
    AddListing(verify, options->listing);
    verify->footer(kComparisonCodes);
    verify->fallthrough()->callback([&command, options] {
        command = [options](const ControlClient&) { return Verify(*options); };
    });
}

/// "accept" and "restore": paths, or all.
CLI::App* DefineDecision(CLI::App& app, const std::string& action, const char* description,
                         DecisionOptions& options) {
    options.action = action;
    CLI::App* decision = app.add_subcommand(action, description)->fallthrough();
    CLI::Option* paths = AddPath(decision, options.paths, "Objects, with all below them");
    decision->add_flag("--all", options.all, "Everything that is protected")->excludes(paths);
    return decision;
}

void AddKey(CLI::App* command, std::string& key) {
    command->add_option("--key", key, kKeyMeaning)->type_name("FILE");
}

void RequireObjects(const DecisionOptions& options) {
    if (options.paths.empty() && !options.all) throw CLI::RequiredError("PATH or --all");
}

void DefineDecisions(CLI::App& app, Command& command) {
    const auto accept = std::make_shared<DecisionOptions>();
    CLI::App* accepting = DefineDecision(
        app, "accept", "Approve what is there now: it becomes the state that is protected",
        *accept);
    AddKey(accepting, accept->key);
    accepting->footer(kDecisionCodes);
    accepting->callback([&command, accept] {
        RequireObjects(*accept);
        command = [accept](const ControlClient& client) { return Decide(client, *accept); };
    });
    const auto restore = std::make_shared<DecisionOptions>();
    const auto dry_run = std::make_shared<bool>(false);
    CLI::App* restoring =
        DefineDecision(app, "restore", "Undo changes: bring back the approved state", *restore);
    restoring->add_flag("--dry-run", *dry_run,
                        "Change nothing; list what differs, as verify does, with its exit codes");
    const auto from_server = std::make_shared<FromServerOptions>();
    const auto is_from_server = std::make_shared<bool>(false);
    CLI::Option* fetch = restoring->add_flag(
        "--from-server", *is_from_server,
        "Fetch lost backup copies from the backup server and check them; leaves the site alone and "
        "needs no agent");
    restoring->add_flag("--yes", from_server->yes, "Fetch without a question")->needs(fetch);
    restoring->footer(kRestoreCodes);
    restoring->callback([=, &command] {
        RequireObjects(*restore);
        command = [=](const ControlClient& client) {
            if (*is_from_server) {
                FromServerOptions options = *from_server;
                options.paths = restore->paths;
                options.is_dry_run = *dry_run;
                return RestoreFromServer(options);
            }
            if (!*dry_run) return Decide(client, *restore);
            VerifyOptions what;
            what.paths = restore->paths;
            return Verify(what);
        };
    });
}

void DefineDiff(CLI::App& app, Command& command) {
    const auto paths = std::make_shared<std::vector<std::string>>();
    CLI::App* diff =
        app.add_subcommand("diff", "Show line by line what a page has differently from its copy");
    AddPath(diff, *paths, "The page")->required()->expected(1);
    diff->footer("Exit codes: 0 equal, 2 differences (also wrong usage), 1 cannot be compared.");
    diff->fallthrough()->callback([&command, paths] {
        command = [paths](const ControlClient&) { return DiffPage(paths->front()); };
    });
}

void DefineGenerations(CLI::App* baseline, Command& command) {
    CLI::App* list = baseline->add_subcommand("list", "List the approved states that are kept");
    list->footer("Exit codes: 0 all can be used, 1 not all.");
    list->fallthrough()->callback(
        [&command] { command = [](const ControlClient&) { return ListGenerations(); }; });
    const auto options = std::make_shared<GenerationDiffOptions>();
    CLI::App* diff = baseline->add_subcommand("diff", "List what two generations have differently");
    diff->add_option("A", options->before, "Number of the older generation")
        ->required()
        ->check(CLI::PositiveNumber);
    diff->add_option("B", options->after, "Number of the other one; default: the newest")
        ->check(CLI::PositiveNumber);
    diff->add_option("--path", options->path,
                     "The protected path, or a part of it; needed when there are several")
        ->expected(1);
    AddListing(diff, options->listing);
    diff->footer(kComparisonCodes);
    diff->fallthrough()->callback([&command, options] {
        command = [options](const ControlClient&) { return DiffGenerations(*options); };
    });
}

void DefineRollback(CLI::App* baseline, Command& command) {
    const auto options = std::make_shared<DecisionOptions>();
    const auto is_confirmed = std::make_shared<bool>(false);
    options->action = "rollback";
    CLI::App* rollback = baseline->add_subcommand(
        "rollback", "Make an older generation the approved state, and bring it back");
    rollback->add_option("N", options->generation, "Number of the generation")
        ->required()
        ->check(CLI::PositiveNumber);
    AddPath(rollback, options->paths,
            "The protected path, or a part of it; needed when there are several")
        ->expected(0, 1);
    rollback->add_flag("--dry-run", options->is_dry_run,
                       "Change nothing; tell how many objects differ and whether their contents "
                       "are kept");
    rollback->add_flag("--yes", *is_confirmed, "Do not ask");
    AddKey(rollback, options->key);
    rollback->footer(kDecisionCodes);
    rollback->fallthrough()->callback([&command, options, is_confirmed] {
        command = [options, is_confirmed](const ControlClient& client) {
            return RollBack(client, *options, *is_confirmed);
        };
    });
}

void DefineForget(CLI::App* baseline, Command& command) {
    const auto paths = std::make_shared<std::vector<std::string>>();
    CLI::App* forget = baseline->add_subcommand(
        "forget", "Remove what is kept of a path that is no longer protected; needs no agent");
    AddPath(forget, *paths, "The path, as \"baseline list\" names it")->required()->expected(1);
    forget->footer("Exit codes: 0 removed, 1 failed, 2 wrong usage, 4 the path is protected.");
    forget->fallthrough()->callback([&command, paths] {
        command = [paths](const ControlClient&) { return ForgetPath(paths->front()); };
    });
}

}  // namespace

void DefineBaseline(CLI::App& app, Command& command) {
    DefineVerify(app, command);
    DefineDiff(app, command);
    DefineDecisions(app, command);
    CLI::App* baseline =
        app.add_subcommand("baseline", "List the approved states, compare them, go back to one");
    baseline->require_subcommand(1)->fallthrough();
    DefineGenerations(baseline, command);
    DefineRollback(baseline, command);
    DefineForget(baseline, command);
}

}  // namespace Ctl
