#include "ctl/Cli.h"

#include <fcntl.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <csignal>
#include <iostream>
#include <string>

#include "common/ControlProtocol.h"
#include "ctl/AlarmCli.h"
#include "ctl/BaselineCli.h"
#include "ctl/DeployCli.h"
#include "ctl/EvidenceCli.h"
#include "ctl/NotifyCli.h"
#include "ctl/ProtectCli.h"
#include "ctl/ShieldCli.h"
#include "ctl/client/ExitCodes.h"
#include "ctl/commands/Commands.h"
#include "ctl/commands/ConsoleCommand.h"
#include "ctl/output/HelpFormatter.h"
#include "ctl/output/Terminal.h"

namespace Ctl {

namespace {

constexpr char kUsualCodes[] = "Exit codes: 0 done, 1 failed, 2 wrong usage, 5 no agent.";

/// The parsed arguments and the command to run.
struct Arguments {
    std::string socket_path = Agent::DefaultSocketPath();
    std::string feature;
    std::string file;
    std::string key;
    std::string tasklet;
    std::string role;
    std::string word;
    bool json = false;
    unsigned short port = 0;
    ReportQuery query;
    std::function<int(const ControlClient&)> command;
};

void AddPolicyFile(CLI::App* command, Arguments& args) {
    command
        ->add_option("FEATURE", args.feature,
                     "sentrel_feature for the protection, backupserver_feature for a backup server")
        ->required();
    command->add_option("FILE", args.file, "The policy document, or - for standard input")
        ->required();
}

void DefinePolicy(CLI::App& app, Arguments& args) {
    CLI::App* policy = app.add_subcommand("policy", "Apply, check and show policies");
    policy->require_subcommand(1)->fallthrough();

    CLI::App* apply = policy->add_subcommand("apply", "Check a policy and apply it");
    AddPolicyFile(apply, args);
    apply->add_option("--key", args.key, kKeyMeaning)->type_name("FILE");
    apply->footer(
        "Exit codes: 0 on, 1 failed, 2 wrong usage, 3 accepted and off, 4 rejected, 5 no agent.");
    apply->callback([&args] {
        args.command = [&args](const ControlClient& client) {
            return ApplyPolicy(client, args.feature, args.file, args.key);
        };
    });
    CLI::App* check = policy->add_subcommand("check", "Check a policy without applying it");
    AddPolicyFile(check, args);
    check->footer(
        "Exit codes: 0 no errors, 1 failed, 2 wrong usage, 4 would be rejected, 5 no agent.");
    check->callback([&args] {
        args.command = [&args](const ControlClient& client) {
            return CheckPolicy(client, args.feature, args.file);
        };
    });
    CLI::App* show = policy->add_subcommand("show", "Print the policy that is in force");
    show->add_option("FEATURE", args.feature,
                     "sentrel_feature for the protection, backupserver_feature for a backup server")
        ->required();
    show->footer(kUsualCodes);
    show->callback([&args] {
        args.command = [&args](const ControlClient& client) {
            return ShowPolicy(client, args.feature);
        };
    });
    CLI::App* list = policy->add_subcommand("list", "List the policies and their states");
    list->footer(kUsualCodes);
    list->callback([&args] { args.command = ListPolicies; });
    for (CLI::App* command : {apply, check, show, list}) command->fallthrough();
}

void DefineStatus(CLI::App& app, Arguments& args) {
    CLI::App* status = app.add_subcommand("status", "Show whether changes are undone, and why not");
    status->footer(
        "Exit codes: 0 healthy, 1 degraded: some change may not be undone, 2 off or no agent (also "
        "wrong usage). \"morvanectl explain WORD\" explains each word in brackets.");
    status->add_flag("--json", args.json, "The status as one JSON object");
    status->fallthrough()->callback([&args] {
        args.command = [&args](const ControlClient& client) {
            return ShowStatus(client, args.json);
        };
    });
    CLI::App* explain = app.add_subcommand(
        "explain", "Explain a word in brackets, such as [held]: cause, what to do");
    explain->add_option("WORD", args.word, "Such as held; without it, all words are listed");
    explain->footer("Exit codes: 0 printed, 1 failed, 2 no such word. No agent is needed.");
    explain->fallthrough()->callback(
        [&args] { args.command = [&args](const ControlClient&) { return Explain(args.word); }; });
    CLI::App* doctor = app.add_subcommand(
        "doctor", "Check everything that the protection needs, and say what to do");
    doctor->footer(
        "Needs no agent. \"morvanectl explain\" tells more about a word in brackets. Exit codes: 0 "
        "all is well, 1 warnings, 2 problems (also wrong usage).");
    doctor->add_flag("--json", args.json, "The findings as one JSON object");
    doctor->fallthrough()->callback([&args] {
        args.command = [&args](const ControlClient& client) { return Examine(client, args.json); };
    });
}

void DefineConsole(CLI::App& app, Arguments& args) {
    CLI::App* console = app.add_subcommand(
        "console", "Show and decide in a browser: serves a page to this host only, until Ctrl-C");
    console
        ->add_option("--port", args.port, "Listen at this port of 127.0.0.1; default: a free one")
        ->type_name("NUMBER")
        ->check(CLI::Range(1, 65535));
    console->footer("Exit codes: 0 ended by Ctrl-C, 1 failed, 2 wrong usage, 5 no agent.");
    console->fallthrough()->callback([&args] {
        args.command = [&args](const ControlClient& client) {
            return ServeConsole(client, args.port);
        };
    });
}

void DefineSecret(CLI::App& app, Arguments& args) {
    CLI::App* secret =
        app.add_subcommand("secret", "Set the passwords between this host and a backup server");
    secret->require_subcommand(1)->fallthrough();
    CLI::App* set = secret->add_subcommand(
        "set", "Set a password: from the terminal, or the first line of stdin");
    set->add_option("ROLE", args.role,
                    "server: what this backup server requires; client: what this host sends")
        ->required()
        ->check(CLI::IsMember({"server", "client"}));
    set->footer(
        "Exit codes: 0 set, 1 failed, 2 wrong usage, 4 the agent has no backups, 5 no agent.");
    set->fallthrough()->callback([&args] {
        args.command = [&args](const ControlClient& client) {
            return SetSecret(client, args.role);
        };
    });
}

void DefineReports(CLI::App& app, Arguments& args) {
    CLI::App* reports =
        app.add_subcommand("reports", "Show all reports as the agent stored them, not only alarms");
    reports->add_option("--kind", args.query.kind, "Only reports of this channel")
        ->check(CLI::IsMember({"cmd", "data"}));
    reports->add_flag("--json", args.query.json, "One JSON object per line");
    reports
        ->add_option("--since", args.query.since,
                     "Of the last SECONDS, or since SECONDS after the epoch")
        ->check(CLI::NonNegativeNumber)
        ->type_name("SECONDS");
    reports->add_option("--limit", args.query.limit, "At most the newest NUMBER (default 100)")
        ->check(CLI::Range(1, Agent::kMaxReportsPerRequest))
        ->type_name("NUMBER");
    reports->footer(kUsualCodes);
    reports->fallthrough()->callback([&args, reports] {
        args.query.has_since = reports->count("--since") > 0;
        args.command = [&args](const ControlClient& client) {
            return ShowReports(client, args.query);
        };
    });
}

/// For programs.
void DefineMachines(CLI::App& app, Arguments& args) {
    CLI::App* metrics =
        app.add_subcommand("metrics", "Print the state in the text format of Prometheus");
    metrics->footer("Exit codes: 0 printed, 1 failed, 2 wrong usage, 5 no agent.");
    metrics->fallthrough()->callback([&args] { args.command = ShowMetrics; });
    CLI::App* tasklet = app.add_subcommand(
        "tasklet", "Run a small job of a module, with a JSON request from standard input");
    tasklet->add_option("ID", args.tasklet, "Name of the job")->required();
    tasklet->footer(
        "Exit codes: 0 its result is 0, 1 another result, or failed, 2 wrong usage, 4 no such "
        "tasklet, 5 no agent.");
    tasklet->fallthrough()->callback([&args] {
        args.command = [&args](const ControlClient& client) {
            return RunTasklet(client, args.tasklet);
        };
    });
}

/// False with a message when standard output takes no more, such as on a full disk. A reader that
/// closed it has read enough.
bool IsOutputWritten() {
    if (std::cout.flush() || IsOutputClosed()) return true;
    std::cerr << "The output could not be written." << std::endl;
    return false;
}

/// Takes the numbers of standard streams that are closed: a file or socket that is opened later
/// would get what is printed. Reading and writing them still fails.
void FillStandardStreams() {
    for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (::fcntl(stream, F_GETFD) >= 0) continue;
        // The lowest free number is this one.
        if (::open("/dev/null", stream == STDIN_FILENO ? O_WRONLY : O_RDONLY) < 0) return;
    }
}

int Run(int argc, const char* const* argv) {
    Arguments args;
    CLI::App app("Protects web sites on this host, and decides about what was changed in them.",
                 "morvanectl");
    app.formatter(std::make_shared<HelpFormatter>());
    app.footer(
        "Begin with \"morvanectl protect DIR\", then \"morvanectl status\". Each command has "
        "--help. More: man morvanectl, /usr/share/doc/sentrel/docs.");
    app.add_option("--socket", args.socket_path,
                   "Control socket of the agent; default: the one of this installation")
        ->type_name("PATH");
    app.set_version_flag("--version", std::string("morvanectl ") + SENTREL_VERSION);
    app.require_subcommand(1);
    // In this order the help lists them: what a new user needs first.
    DefineProtect(app, args.command);
    DefineStatus(app, args);
    DefineAlarms(app, args.command);
    DefineEvidence(app, args.command);
    DefineBaseline(app, args.command);
    DefineDeploy(app, args.command);
    DefineShield(app, args.command);
    DefineConsole(app, args);
    DefineNotify(app, args.command);
    DefinePolicy(app, args);
    DefineSecret(app, args);
    DefineReports(app, args);
    DefineMachines(app, args);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        return app.exit(e) == 0 ? kExitOk : kExitUsage;
    }
    const int exit_code = args.command(ControlClient(args.socket_path));
    return IsOutputWritten() ? exit_code : kExitFailed;
}

}  // namespace

int Main(int argc, const char* const* argv) {
    std::signal(SIGPIPE, SIG_IGN);
    FillStandardStreams();
    try {
        return Run(argc, argv);
    } catch (const std::exception& e) {
        std::cerr << "morvanectl: " << e.what() << std::endl;
        return kExitFailed;
    }
}

}  // namespace Ctl
