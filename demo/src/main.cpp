#include <CLI/CLI.hpp>
#include <exception>
#include <iostream>

#include "OddNames.h"
#include "PolicyDocument.h"
#include "Readiness.h"
#include "Session.h"

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

int MakeOddNames(const std::string& site, const std::string& marks) {
    const std::string problem = Demo::OddNames(site, marks).Make();
    if (!problem.empty()) std::cerr << "error: " << problem << "\n";
    return problem.empty() ? 0 : 2;
}

int Run(int argc, char** argv) {
    CLI::App app("Attacks a protected site and watches every attack being undone.");
    app.require_subcommand(1);

    Demo::PolicyRequest policy;
    CLI::App* print = app.add_subcommand("policy", "print a protection policy");
    print->add_option("--tree", policy.tree, "the tree to protect")->required();
    print->add_option("--file", policy.file, "a single file to protect as well");
    print->add_option("--backup", policy.backup, "folder of the backup copies")->required();
    print->add_option("--rsync", policy.rsync, "the rsync executable to take")->required();
    print->add_flag("!--no-restore", policy.auto_restore, "report changes, and leave them");
    print->add_option("--push-to", policy.push_address, "a backup server to push the copies to");
    print->add_option("--push-port", policy.push_port, "its port");
    AddExclusions(print, policy.excluded_subdirs, policy.excluded_suffixes);

    Demo::ServerPolicyRequest server;
    CLI::App* print_server = app.add_subcommand("server-policy", "print a backup server's policy");
    print_server->add_option("--address", server.address, "where it listens")->required();
    print_server->add_option("--port", server.port, "its port")->required();
    print_server->add_option("--path", server.path, "where the copies go")->required();
    print_server->add_option("--rsync", server.rsync, "the rsync executable to take")->required();

    Demo::SessionOptions session;
    int deadline_ms = static_cast<int>(session.deadline.count());
    CLI::App* attack = app.add_subcommand("attack", "attack a site; exit code 0: all undone");
    attack->add_option("--site", session.site, "the protected tree")->required();
    attack->add_option("--file", session.file, "a single protected file apart from it");
    attack->add_option("--scratch", session.scratch, "a folder for the intruder")->required();
    attack->add_option("--socket", session.socket, "the agent's control socket")->required();
    attack->add_option("--deadline-ms", deadline_ms, "longest wait for an attack to be undone");
    attack->add_flag("--json", session.json, "one JSON object a line");
    AddExclusions(attack, session.excluded_subdirs, session.excluded_suffixes);

    std::string odd_site;
    std::string odd_marks;
    CLI::App* odd = app.add_subcommand("odd-names", "make objects with odd names in a site");
    odd->add_option("--site", odd_site, "the site, not protected yet")->required();
    odd->add_option("--scratch", odd_marks, "the folder that `attack` gets")->required();

    Demo::ReadinessRequest readiness;
    CLI::App* answer = app.add_subcommand("answer", "wait until an agent answers");
    CLI::App* ready = app.add_subcommand("ready", "wait until all is watched and backed up");
    for (CLI::App* command : {answer, ready}) {
        command->add_option("--socket", readiness.socket, "the agent's control socket")->required();
        command->add_option("--deadline-ms", readiness.deadline_ms, "0: wait for ever");
    }
    ready->add_option("--paths", readiness.paths, "how many protected paths there must be");

    CLI11_PARSE(app, argc, argv);
    if (print->parsed()) return PrintPolicy(Demo::MakePolicy(policy), policy.rsync);
    if (print_server->parsed()) return PrintPolicy(Demo::MakeServerPolicy(server), server.rsync);
    if (odd->parsed()) return MakeOddNames(odd_site, odd_marks);
    if (answer->parsed()) return Demo::WaitForAnswer(readiness, std::cerr) ? 0 : 1;
    if (ready->parsed()) return Demo::WaitUntilReady(readiness, std::cout) ? 0 : 1;
    session.deadline = std::chrono::milliseconds(deadline_ms);
    return Demo::RunSession(session, std::cout);
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
