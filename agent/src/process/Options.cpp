#include "process/Options.h"

#include <CLI/CLI.hpp>
#include <filesystem>

#include "process/ExitCodes.h"

namespace Agent {

std::optional<Options> ParseOptions(int argc, const char* const* argv, int& exit_code) {
    Options options;
    CLI::App app("The host agent: loads its modules and applies their policies.");
    app.add_option("--config", options.config_file,
                   "Configuration file instead of conf/agent.json of the installation");
    CLI::Option* daemon =
        app.add_flag("--daemon", options.daemon,
                     "Run in the background; return when the agent is ready or has failed");
    app.add_flag("--check", options.check,
                 "Only check the configuration and the kept policies. Exit codes: 0 no errors, "
                 "1 errors, 2 an agent runs")
        ->excludes(daemon);
    app.set_version_flag("--version", std::string("morvane_agent ") + SENTREL_VERSION);
    try {
        app.parse(argc, argv);
        if (!options.config_file.empty()) {
            options.config_file = std::filesystem::absolute(options.config_file).string();
        }
        return options;
    } catch (const CLI::ParseError& e) {
        exit_code = app.exit(e) == 0 ? kExitOk : kExitUsage;
        return std::nullopt;
    }
}

}  // namespace Agent
