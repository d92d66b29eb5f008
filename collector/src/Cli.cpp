#include "Cli.h"

#include <pwd.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <csignal>
#include <exception>
#include <functional>
#include <iostream>
#include <map>

#include "commands/Commands.h"

namespace Collector {

namespace {

const std::map<std::string, std::int64_t> kTimeUnits{
    {"s", 1}, {"m", 60}, {"h", 3600}, {"d", 86400}};

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
    CLI::App* rollouts = app.add_subcommand(
        "rollouts", "List how far policies and acts are that rollout or the console has published");
    rollouts->add_option("--limit", args.limit, "The newest so many; default 100");
    Define(rollouts, chosen, ListRollouts);
    CLI::App* acts = app.add_subcommand("acts", "List the hosts' answers to acts");
    acts->add_option("--limit", args.limit, "The newest so many; default 100");
    Define(acts, chosen, ListActResults);
}

void DefineAudience(CLI::App* command, Arguments& args) {
    command->add_option("--host", args.hosts, "For this agent id; may be repeated");
    command->add_option("--group", args.groups,
                        "For the hosts of this group (fleet.groups); may be repeated");
    command->add_flag("--all-hosts", args.all_hosts, "For every host that has the public key");
}

void DefinePublish(CLI::App* publish, Arguments& args, Command& chosen) {
    publish->add_option("--user", args.user, "User of the broker; default: that of the collector");
    publish->add_option("--password-file", args.password_file, "File with that user's password");
    publish->add_option("FILE", args.file, "The signed document")->required();
    Define(publish, chosen, PublishDocument);
}

void DefineRollout(CLI::App& app, Arguments& args, Command& chosen) {
    CLI::App* rollout = app.add_subcommand(
        "rollout", "Let the service publish a signed policy or act, a policy in two waves");
    rollout
        ->add_option("--percent", args.percent,
                     "A policy goes to so many of the hosts first; default 5")
        ->check(CLI::Range(1, 100));
    rollout->add_option("FILE", args.file, "The signed document")->required();
    Define(rollout, chosen, RollOut);
}

std::string NameOfUser() {
    const passwd* const user = ::getpwuid(::geteuid());
    return user == nullptr ? "" : user->pw_name;
}

void DefineAct(CLI::App& app, Arguments& args, Command& chosen) {
    args.signer = NameOfUser();
    CLI::App* act = app.add_subcommand(
        "act", "Print what hosts are to do: signed with --key, else to be signed elsewhere");
    act->add_option("NAME", args.act, "What to do")
        ->required()
        ->check(CLI::IsMember({"accept", "restore", "rollback", "pause", "resume", "verify",
                               "deploy-begin", "deploy-commit", "deploy-abort"}));
    act->add_option("PATH", args.paths,
                    "Protected paths; of accept and restore also parts of them");
    DefineAudience(act, args);
    act->add_option("--key", args.key_file, "File with the private key");
    act->add_flag("--all", args.all, "accept, restore: all protected paths");
    act->add_option("--generation", args.generation, "rollback: the generation to go back to");
    act->add_option("--for", args.seconds, "pause, deploy-begin: how long, such as 30m or 2h")
        ->transform(CLI::AsNumberWithUnit(kTimeUnits, CLI::AsNumberWithUnit::UNIT_OPTIONAL));
    act->add_option("--id", args.id, "deploy-commit, deploy-abort: the deploy");
    act->add_option("--reason", args.reason, "Kept with what is done");
    act->add_option("--valid", args.valid_s, "Hosts take it so long, such as 1h; default 15m")
        ->check(CLI::PositiveNumber)
        ->transform(CLI::AsNumberWithUnit(kTimeUnits, CLI::AsNumberWithUnit::UNIT_OPTIONAL));
    act->add_option("--signer", args.signer, "Whom the reports name; default: your user name");
    act->add_option("--number", args.version, "Hosts take only greater ones; default: the time")
        ->check(CLI::PositiveNumber);
    Define(act, chosen, MakeAct);
    CLI::App* sign =
        app.add_subcommand("sign", "Sign what act or the console has prepared; print the document");
    sign->add_option("--key", args.key_file, "File with the private key")->required();
    sign->add_option("FILE", args.file, "The document that is to be signed")->required();
    Define(sign, chosen, SignDocument);
    DefinePublish(app.add_subcommand("publish", "Publish a signed policy or act to its hosts"),
                  args, chosen);
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
                     "Version of the policy; hosts take only greater ones; default: the time")
        ->check(CLI::PositiveNumber);
    DefineAudience(sign, args);
    sign->add_option("FEATURE", args.feature, "Name of the feature")->required();
    sign->add_option("FILE", args.file, "The policy document")->required();
    Define(sign, chosen, SignPolicy);
    DefinePublish(policy->add_subcommand("publish", "Publish a signed policy to its hosts"), args,
                  chosen);
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

void DefineNotify(CLI::App& app, Command& chosen) {
    CLI::App* notify = app.add_subcommand("notify", "Try who is told of incidents");
    notify->require_subcommand(1)->fallthrough();
    Define(notify->add_subcommand("test", "Send a test through every channel"), chosen, TestNotify);
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
    DefineAct(app, args, chosen);
    DefineRollout(app, args, chosen);
    DefineUsers(app, args, chosen);
    DefineNotify(app, chosen);
    Define(app.add_subcommand("metrics", "Print the fleet in the text format of Prometheus"),
           chosen, ShowMetrics);
    CLI::App* backup =
        app.add_subcommand("backup", "Copy the SQLite database while the service runs");
    backup->add_option("FILE", args.file, "New file")->required();
    Define(backup, chosen, BackUp);
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
