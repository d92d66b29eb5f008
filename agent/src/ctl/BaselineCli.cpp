#include "ctl/BaselineCli.h"

#include <CLI/CLI.hpp>
#include <memory>
#include <string>

#include "ctl/commands/BaselineCommands.h"

namespace Ctl {

namespace {

using Command = std::function<int(const ControlClient&)>;

constexpr char kComparisonCodes[] =
    "Exit codes: 0 equal, 2 differences (also wrong usage), 1 not everything could be compared.";

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
    CLI::App* verify = app.add_subcommand("verify",
                                          "Compare the protected paths with their approved state. "
                                          "Changes nothing and needs no agent");
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

}  // namespace

void DefineBaseline(CLI::App& app, Command& command) {
    DefineVerify(app, command);
}

}  // namespace Ctl
