#include <CLI/CLI.hpp>
#include <exception>
#include <functional>
#include <iostream>
#include <memory>

#include "agent/PolicyDocument.h"
#include "agent/Readiness.h"
#include "attack/Session.h"
#include "site/OddNames.h"

namespace {

void AddExclusions(CLI::App* command, std::vector<std::string>& subdirs,
                   std::vector<std::string>& suffixes) {
    command->add_option("--ignore-dir", subdirs, "a directory below the tree to leave out");
    command->add_option("--ignore-suffix", suffixes, "a file name's end to leave out");
}

int PrintPolicy(const std::string& policy, const std::string& rsync) {
    if (policy.empty()) {
        std::cerr << "error: cannot read the rsync executable " << rsync << "\n";
        return 2;
    }
    std::cout << policy;
    return 0;
}

int MakeOddNames(const std::string& site, const std::string& marker_folder) {
    const std::string problem = Demo::OddNames(site, marker_folder).Make();
    if (!problem.empty()) std::cerr << "error: " << problem << "\n";
    return problem.empty() ? 0 : 2;
}

/// Adds a command and its options. `run` is called when the command was given.
void AddPolicy(CLI::App& app, std::function<int()>& run) {
    auto policy = std::make_shared<Demo::PolicyRequest>();
    CLI::App* print = app.add_subcommand("policy", "print a protection policy");
    print->add_option("--tree", policy->tree, "the tree to protect")->required();
    print->add_option("--file", policy->file, "a single file to protect as well");
    print->add_option("--backup", policy->backup, "folder of the backup copies")->required();
    print->add_option("--rsync", policy->rsync, "the rsync executable to use")->required();
    print->add_flag("!--no-restore", policy->auto_restore, "report changes without undoing them");
    print->add_option("--push-to", policy->push_address, "a backup server to push the copies to");
    print->add_option("--push-port", policy->push_port, "its port");
    AddExclusions(print, policy->excluded_subdirs, policy->excluded_suffixes);
    print->callback([&run, policy] {
        run = [policy] { return PrintPolicy(Demo::MakePolicy(*policy), policy->rsync); };
    });
}

void AddServerPolicy(CLI::App& app, std::function<int()>& run) {
    auto server = std::make_shared<Demo::ServerPolicyRequest>();
    CLI::App* print = app.add_subcommand("server-policy", "print a backup server's policy");
    print->add_option("--address", server->address, "where it listens")->required();
    print->add_option("--port", server->port, "its port")->required();
    print->add_option("--path", server->path, "where the copies go")->required();
    print->add_option("--rsync", server->rsync, "the rsync executable to use")->required();
    print->callback([&run, server] {
        run = [server] { return PrintPolicy(Demo::MakeServerPolicy(*server), server->rsync); };
    });
}

void AddAttack(CLI::App& app, std::function<int()>& run) {
    auto session = std::make_shared<Demo::SessionOptions>();
    auto deadline_ms = std::make_shared<int>(static_cast<int>(session->deadline.count()));
    CLI::App* attack = app.add_subcommand("attack", "attack a site; exit code 0: all undone");
    attack->add_option("--site", session->site, "the protected tree")->required();
    attack->add_option("--file", session->file, "a single protected file outside it");
    attack->add_option("--scratch", session->scratch, "a folder for the intruder")->required();
    attack->add_option("--socket", session->socket, "the agent's control socket")->required();
    attack->add_option("--deadline-ms", *deadline_ms, "longest wait for an attack to be undone");
    attack->add_flag("--json", session->json, "one JSON object a line");
    AddExclusions(attack, session->excluded_subdirs, session->excluded_suffixes);
    attack->callback([&run, session, deadline_ms] {
        session->deadline = std::chrono::milliseconds(*deadline_ms);
        run = [session] { return Demo::RunSession(*session, std::cout); };
    });
}

void AddOddNames(CLI::App& app, std::function<int()>& run) {
    auto site = std::make_shared<std::string>();
    auto scratch = std::make_shared<std::string>();
    CLI::App* odd = app.add_subcommand("odd-names", "make objects with odd names in a site");
    odd->add_option("--site", *site, "the site, not protected yet")->required();
    odd->add_option("--scratch", *scratch, "the same folder as for `attack`")->required();
    odd->callback([&run, site, scratch] { run = [=] { return MakeOddNames(*site, *scratch); }; });
}

void AddWaits(CLI::App& app, std::function<int()>& run) {
    auto readiness = std::make_shared<Demo::ReadinessRequest>();
    CLI::App* answer = app.add_subcommand("answer", "wait until an agent answers");
    CLI::App* ready = app.add_subcommand("ready", "wait until all is watched and backed up");
    for (CLI::App* command : {answer, ready}) {
        command->add_option("--socket", readiness->socket, "the agent's control socket")
            ->required();
        command->add_option("--deadline-ms", readiness->deadline_ms, "0: wait for ever");
    }
    ready->add_option("--paths", readiness->paths, "how many protected paths there must be");
    answer->callback([&run, readiness] {
        run = [readiness] { return Demo::WaitForAnswer(*readiness, std::cerr) ? 0 : 1; };
    });
    ready->callback([&run, readiness] {
        run = [readiness] { return Demo::WaitUntilReady(*readiness, std::cout) ? 0 : 1; };
    });
}

int Run(int argc, char** argv) {
    CLI::App app("Attacks a protected site and watches every attack being undone.");
    app.require_subcommand(1);
    std::function<int()> run;
    for (const auto add : {AddPolicy, AddServerPolicy, AddAttack, AddOddNames, AddWaits}) {
        add(app, run);
    }
    CLI11_PARSE(app, argc, argv);
    return run();
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return Run(argc, argv);
    } catch (const std::exception& e) {
        std::cerr << "error: " << e.what() << "\n";
        return 2;
    }
}
