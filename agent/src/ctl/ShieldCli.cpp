#include "ctl/ShieldCli.h"

#include <CLI/CLI.hpp>
#include <memory>
#include <string>

#include "ctl/commands/ShieldCommand.h"

namespace Ctl {

void DefineShield(CLI::App& app, std::function<int(const ControlClient&)>& command) {
    const auto options = std::make_shared<ShieldOptions>();
    CLI::App* shield =
        app.add_subcommand("shield", "Let nobody open a changed page before it is put right");
    CLI::Option* path = shield->add_option("PATH", options->path,
                                           "The protected directory; without it, all are listed");
    CLI::Option* mode =
        shield
            ->add_option("MODE", options->mode,
                         "off; monitor: count only; heal: put a page right before it is read, "
                         "refuse others; deny: refuse")
            ->check(CLI::IsMember({"off", "monitor", "heal", "deny"}));
    path->needs(mode);
    shield->add_flag("--json", options->json, "One JSON object per directory and line");
    shield->footer(
        "The mode is kept over restarts. It needs the sentry, which conf/agent.json switches on. "
        "Exit codes: 0 done, 1 failed, 2 wrong usage, 4 refused, 5 no agent.");
    shield->fallthrough()->callback([&command, options] {
        command = [options](const ControlClient& client) { return ShieldPath(client, *options); };
    });
}

}  // namespace Ctl
