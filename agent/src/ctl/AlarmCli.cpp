#include "ctl/AlarmCli.h"

#include <sdk/time/TimeUtils.h>

#include <CLI/CLI.hpp>
#include <filesystem>
#include <memory>

#include "ctl/baselines/PolicyPaths.h"
#include "ctl/commands/reports/AlarmCommand.h"
#include "ctl/output/Moment.h"

namespace Ctl {

namespace {

/// The options as they are typed.
struct Typed {
    AlarmOptions options;
    std::string path;
    std::string since;
    std::string until;
};

std::string IsMoment(const std::string& text) {
    return ParseMoment(text, SDK::TimeUtils::GetCurrentTimestampS())
               ? ""
               : "\"" + text + "\" is no time; such as 2h, 30m, 10:30 or 2026-11-22";
}

void AddFilters(CLI::App* alarms, Typed& typed) {
    alarms->add_option("--since", typed.since, "Not before: 2h, 30m, 3d, 10:30 or 2026-11-22")
        ->type_name("TIME")
        ->check(IsMoment);
    alarms->add_option("--until", typed.until, "Not after, in the same forms")
        ->type_name("TIME")
        ->check(IsMoment);
    alarms->add_option("--path", typed.path, "Only of this object and all below it")
        ->type_name("PATH");
    alarms->add_option("--action", typed.options.filter.action, "Only of this kind")
        ->check(CLI::IsMember({"add", "delete", "modify", "attribute", "unknown"}));
    alarms
        ->add_option("--outcome", typed.options.filter.outcome,
                     "Only with this in the outcome: restored, removed, held, failed, reported")
        ->type_name("TEXT");
}

AlarmOptions Taken(const Typed& typed) {
    constexpr long long kMsPerSecond = 1000;
    AlarmOptions options = typed.options;
    const long long now_s = SDK::TimeUtils::GetCurrentTimestampS();
    if (!typed.since.empty()) {
        options.filter.since_ms = *ParseMoment(typed.since, now_s) * kMsPerSecond;
    }
    if (!typed.until.empty()) {
        options.filter.until_ms =
            *ParseMoment(typed.until, now_s) * kMsPerSecond + kMsPerSecond - 1;
    }
    if (!typed.path.empty()) {
        options.filter.path = CanonicalPath(std::filesystem::absolute(typed.path).string());
    }
    return options;
}

}  // namespace

void DefineAlarms(CLI::App& app, std::function<int(const ControlClient&)>& command) {
    const auto typed = std::make_shared<Typed>();
    AlarmOptions& options = typed->options;
    CLI::App* alarms =
        app.add_subcommand("alarms", "Show what was changed, the changes of a minute in one line");
    alarms->add_flag("-f,--follow", options.follow, "Show new ones as they come, until Ctrl-C");
    alarms
        ->add_option("-n,--limit", options.limit, "At most the newest NUMBER (default 50); 0: all")
        ->type_name("NUMBER");
    AddFilters(alarms, *typed);
    alarms->add_flag("--all", options.all, "Each alarm in a line of its own");
    alarms->add_flag("--diff", options.diff, "Each alarm with its difference below");
    alarms->add_flag("--json", options.json, "Each alarm as one JSON object in a line");
    alarms->footer(
        "Exit codes: 0 shown, also when there is none, 1 failed, 2 wrong usage, 5 no agent.");
    alarms->fallthrough()->callback([&command, typed] {
        command = [typed](const ControlClient& client) {
            return ShowAlarms(client, Taken(*typed));
        };
    });
}

}  // namespace Ctl
