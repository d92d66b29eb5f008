#include "ctl/NotifyCli.h"

#include <CLI/CLI.hpp>
#include <memory>

#include "ctl/commands/reports/NotifyCommands.h"

namespace Ctl {

namespace {

using Command = std::function<int(const ControlClient&)>;

void DefineStatus(CLI::App& notify, Command& command) {
    const auto json = std::make_shared<bool>(false);
    CLI::App* status = notify.add_subcommand("status", "Show each channel and what it sent last");
    status->add_flag("--json", *json, "One JSON object per line");
    status->footer(
        "Exit codes: 0 all channels work, 1 a channel fails or the command did, 2 wrong usage, 5 "
        "no "
        "agent.");
    status->callback([&command, json] {
        command = [json](const ControlClient& client) { return ShowChannels(client, *json); };
    });
}

void DefineTest(CLI::App& notify, Command& command) {
    const auto channel = std::make_shared<std::string>();
    CLI::App* test = notify.add_subcommand(
        "test", "Send a test message now and show what the receiver answered");
    test->add_option("CHANNEL", *channel,
                     "mail, webhook, heartbeat, syslog, journald, ocsf or hook; default: all that "
                     "are on, without the hook")
        ->check(
            CLI::IsMember({"mail", "webhook", "heartbeat", "syslog", "journald", "ocsf", "hook"}));
    test->footer("Exit codes: 0 all were sent, 1 one was not, 2 wrong usage, 5 no agent.");
    test->callback([&command, channel] {
        command = [channel](const ControlClient& client) { return TestChannels(client, *channel); };
    });
}

}  // namespace

void DefineNotify(CLI::App& app, Command& command) {
    CLI::App* notify = app.add_subcommand(
        "notify", "Mail, webhook and the other ways to be told, which conf/agent.json switches on");
    notify->require_subcommand(1)->fallthrough();
    DefineStatus(*notify, command);
    DefineTest(*notify, command);
    for (CLI::App* one : notify->get_subcommands({})) one->fallthrough();
}

}  // namespace Ctl
