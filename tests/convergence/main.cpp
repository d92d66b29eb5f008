// Storm after storm over one agent, a line each.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <random>

#include "StormRun.h"

namespace {

namespace fs = std::filesystem;
using test::StormRun;

/// What is needed to find out what went wrong.
void Keep(const test::AgentProcess& agent, const StormRun& run, const std::string& folder) {
    std::error_code ignored;
    fs::create_directories(folder, ignored);
    fs::copy(agent.Path("log"), folder, fs::copy_options::recursive, ignored);
    std::ofstream(folder + "/report") << run.Report(StormRun::kEverything) << "\n";
    std::printf("    the agent's log: %s\n", folder.c_str());
}

StormRun::Mode ModeFor(const std::string& name, std::uint64_t seed) {
    static const char* const some[] = {"restore", "monitor", "restore", "overflow",
                                       "restore", "monitor", "restore", "slow"};
    return StormRun::ModeOf(name == "all" ? some[seed % 8] : name);
}

}  // namespace

int main(int argc, char** argv) {
    std::uint64_t seeds = 200;
    std::uint64_t first = std::random_device()() % 1000000;
    int steps = 200;
    std::string mode = "all";
    std::string folder = "storm";
    CLI::App app(
        "Lets random storms loose on sites that an agent protects, and checks that each "
        "site is as its backup copy again and that every difference was told.");
    app.add_option("--seeds", seeds, "How many storms")->capture_default_str();
    app.add_option("--first", first, "The seed of the first; the others follow (default: any)");
    app.add_option("--steps", steps, "Operations a storm")->capture_default_str();
    app.add_option("--mode", mode, "What the agent does")
        ->check(CLI::IsMember({"all", "restore", "monitor", "overflow", "slow"}))
        ->capture_default_str();
    app.add_option("--keep", folder, "Where logs of failures go")->capture_default_str();
    CLI11_PARSE(app, argc, argv);

    test::AgentProcess agent;
    StormRun::Prepare(agent);
    if (!agent.Start()) return 1;
    std::printf("%lu seeds from %lu\n", seeds, first);
    std::uint64_t failed = 0;
    for (std::uint64_t seed = first; seed < first + seeds; ++seed) {
        StormRun run(agent, seed, ModeFor(mode, seed), steps);
        const bool kept = run.Run();
        std::puts(run.Report().c_str());
        if (!kept) Keep(agent, run, folder + "/" + std::to_string(seed));
        failed += kept ? 0 : 1;
        std::fflush(stdout);
    }
    std::printf("%lu of %lu failed\n", failed, seeds);
    return failed == 0 && agent.Stop() == 0 ? 0 : 1;
}
