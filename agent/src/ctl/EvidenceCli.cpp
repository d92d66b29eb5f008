#include "ctl/EvidenceCli.h"

#include <CLI/CLI.hpp>
#include <memory>

#include "ctl/commands/reports/EvidenceCommands.h"

namespace Ctl {

namespace {

using Command = std::function<int(const ControlClient&)>;

constexpr char kCodes[] = "Exit codes: 0 done, 1 failed, 2 wrong usage. No agent is needed.";

void DefineList(CLI::App& evidence, Command& command) {
    const auto options = std::make_shared<EvidenceListOptions>();
    CLI::App* list = evidence.add_subcommand("list", "List what was kept, newest first");
    list->add_option("PATH", options->path, "Only of this path and what lies below it");
    list->add_option("--limit", options->limit, "At most the newest NUMBER (default 100); 0: all")
        ->type_name("NUMBER");
    list->add_flag("--json", options->json, "One JSON object per line");
    list->callback([&command, options] {
        command = [options](const ControlClient&) { return ListEvidence(*options); };
    });
}

void DefineReading(CLI::App& evidence, Command& command) {
    const auto id = std::make_shared<std::string>();
    const auto file = std::make_shared<std::string>();
    CLI::App* show = evidence.add_subcommand(
        "show", "Print a content in a form that is safe for a terminal, at most 64 KiB");
    CLI::App* copy = evidence.add_subcommand("export", "Copy a content to a new file, as it was");
    for (CLI::App* reading : {show, copy}) {
        reading->add_option("ID", *id, "The id, or its first digits")->required();
    }
    copy->add_option("FILE", *file, "The new file, which only you can read; must not exist")
        ->required();
    show->callback(
        [&command, id] { command = [id](const ControlClient&) { return ShowEvidence(*id); }; });
    copy->callback([&command, id, file] {
        command = [id, file](const ControlClient&) { return ExportEvidence(*id, *file); };
    });
}

void DefinePurge(CLI::App& evidence, Command& command) {
    const auto days = std::make_shared<int>(-1);
    const auto all = std::make_shared<bool>(false);
    CLI::App* purge = evidence.add_subcommand("purge", "Remove evidence for good");
    CLI::Option* older = purge->add_option("--older-than", *days, "What is older than DAYS")
                             ->type_name("DAYS")
                             ->check(CLI::Range(0, 36500));
    purge->add_flag("--all", *all, "Everything")->excludes(older);
    purge->callback([&command, days, all] {
        if (!*all && *days < 0) throw CLI::RequiredError("--older-than or --all");
        command = [days, all](const ControlClient&) { return PurgeEvidence(*all ? -1 : *days); };
    });
}

}  // namespace

void DefineEvidence(CLI::App& app, Command& command) {
    CLI::App* evidence = app.add_subcommand(
        "evidence", "Read what changed and foreign files contained, which the agent keeps");
    evidence->require_subcommand(1)->fallthrough();
    DefineList(*evidence, command);
    DefineReading(*evidence, command);
    DefinePurge(*evidence, command);
    for (CLI::App* one : evidence->get_subcommands({})) one->footer(kCodes)->fallthrough();
}

}  // namespace Ctl
