#include "Cli.h"

#include <CLI/CLI.hpp>
#include <csignal>
#include <exception>
#include <functional>
#include <iostream>

#include "commands/Commands.h"

namespace Collector {

namespace {

using Command = std::function<int(const Arguments&)>;

void Define(CLI::App* app, Command& chosen, int (*command)(const Arguments&)) {
    app->callback([&chosen, command] { chosen = command; });
}

void DefineLists(CLI::App& app, Arguments& args, Command& chosen) {
    CLI::App* reports =
        app.add_subcommand("reports", "List stored reports, one JSON object a line");
    reports->add_option("--host", args.agent_id, "Only of this agent id");
    reports->add_option("--kind", args.kind, "Only of this kind")
        ->check(CLI::IsMember({"alarm", "data", "cmd"}));
    reports->add_option("--after", args.after, "Only after this id, oldest first");
    reports->add_option("--limit", args.limit, "At most so many; default 100");
    Define(reports, chosen, ListReports);
    CLI::App* events =
        app.add_subcommand("events", "List what happened to hosts: silent, back, renumbered, gap");
    events->add_option("--limit", args.limit, "The newest so many; default 100");
    Define(events, chosen, ListEvents);
    CLI::App* results = app.add_subcommand("results", "List the hosts' answers to policies");
    Define(results, chosen, ListResults);
}

void DefinePolicy(CLI::App& app, Arguments& args, Command& chosen) {
    CLI::App* policy = app.add_subcommand("policy", "Sign policies and publish them to hosts");
    policy->require_subcommand(1)->fallthrough();
    CLI::App* keygen = policy->add_subcommand("keygen", "Make the operator's pair of keys");
    keygen->add_option("--key", args.key_file, "New file for the private key")->required();
    keygen->add_option("--public", args.public_file, "New file for the public key")->required();
    Define(keygen, chosen, MakeKey);
    CLI::App* sign = policy->add_subcommand("sign", "Print the signed document of a policy");
    sign->add_option("--key", args.key_file, "File with the private key")->required();
    // Not --version: that is the option of the program.
    sign->add_option("--number", args.version,
                     "Version of the policy; hosts take only greater ones")
        ->required()
        ->check(CLI::PositiveNumber);
    sign->add_option("--host", args.hosts, "For this agent id; may be repeated");
    sign->add_flag("--all-hosts", args.all_hosts, "For every host that has the public key");
    sign->add_option("FEATURE", args.feature, "Name of the feature")->required();
    sign->add_option("FILE", args.file, "The policy document")->required();
    Define(sign, chosen, SignPolicy);
    CLI::App* publish = policy->add_subcommand("publish", "Publish a signed policy to its hosts");
    publish->add_option("--user", args.user, "User of the broker; default: that of the collector");
    publish->add_option("--password-file", args.password_file, "File with that user's password");
    publish->add_option("FILE", args.file, "What sign has printed")->required();
    Define(publish, chosen, PublishPolicy);
}

void DefineUsers(CLI::App& app, Arguments& args, Command& chosen) {
    CLI::App* user = app.add_subcommand("user", "Say who may use the console");
    user->require_subcommand(1)->fallthrough();
    CLI::App* add = user->add_subcommand(
        "add", "Add a user, or change role and password: the first line of stdin, or typed");
    add->add_option("--role", args.role, "viewer: look; operator: decide; admin: everything")
        ->check(CLI::IsMember({"viewer", "operator", "admin"}));
    CLI::App* remove = user->add_subcommand("remove", "Remove a user");
    CLI::App* totp = user->add_subcommand(
        "totp", "Ask a user for a code as well: prints the secret for the user's phone");
    for (CLI::App* one : {add, remove, totp}) {
        one->add_option("NAME", args.user, "Name of the user")->required();
    }
    Define(add, chosen, AddUser);
    Define(remove, chosen, RemoveUser);
    Define(totp, chosen, MakeTotp);
    Define(user->add_subcommand("list", "List the users and their last logins"), chosen, ListUsers);
}

void DefineAll(CLI::App& app, Arguments& args, Command& chosen) {
    app.require_subcommand(1)->fallthrough();
    app.set_version_flag("--version", std::string("sentrel_collector ") + SENTREL_VERSION);
    app.add_option("--config", args.config, "The configuration file");
    app.add_option("--database", args.database, "Another database than that of the configuration");
    CLI::App* run = app.add_subcommand("run", "Run the collector until SIGTERM");
    Define(run, chosen, Run);
    CLI::App* status = app.add_subcommand("status", "Show the hosts and which are silent");
    status->add_flag("--json", args.json, "As one JSON object");
    status->footer(
        "Exit codes: 0 all is well, 3 a host is silent, 4 a host is degraded or off, 5 the "
        "collector does not run or has no broker.");
    Define(status, chosen, ShowStatus);
    DefineLists(app, args, chosen);
    DefinePolicy(app, args, chosen);
    DefineUsers(app, args, chosen);
}

}  // namespace

int Main(int argc, const char* const* argv) {
    std::signal(SIGPIPE, SIG_IGN);
    try {
        CLI::App app("Collects what the hosts of a Sentrel fleet report", "sentrel_collector");
        Arguments arguments;
        Command chosen;
        DefineAll(app, arguments, chosen);
        try {
            app.parse(argc, argv);
        } catch (const CLI::ParseError& error) {
            return app.exit(error) == 0 ? kExitOk : kExitUsage;
        }
        return chosen(arguments);
    } catch (const std::exception& error) {
        std::cerr << "sentrel_collector: " << error.what() << std::endl;
        return kExitFailed;
    }
}

}  // namespace Collector
