// Runs storms one after another with one agent; prints one line for each.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <random>

#include "StormRun.h"

namespace {

namespace fs = std::filesystem;
using test::StormRun;

/// Keeps the agent's log and the full report.
void KeepLogs(const test::AgentProcess& agent, const StormRun& run, const std::string& folder) {
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
        "Applies storms of random changes to sites that an agent protects, and checks that each "
        "site equals its backup copy again and that every difference has an alarm.");
    app.add_option("--seeds", seeds, "Number of storms")->capture_default_str();
    app.add_option("--first", first,
                   "Seed of the first storm; each next one adds 1 (default: random)");
    app.add_option("--steps", steps, "Operations per storm")->capture_default_str();
    app.add_option("--mode", mode, "Mode of the agent")
        ->check(CLI::IsMember({"all", "restore", "monitor", "overflow", "slow"}))
        ->capture_default_str();
    app.add_option("--keep", folder, "Directory for the logs of failed storms")
        ->capture_default_str();
    CLI11_PARSE(app, argc, argv);

    test::AgentProcess agent;
    StormRun::Prepare(agent);
    if (!agent.Start()) return 1;
    std::printf("%lu seeds from %lu\n", seeds, first);
    std::uint64_t failed = 0;
    for (std::uint64_t seed = first; seed < first + seeds; ++seed) {
        StormRun run(agent, seed, ModeFor(mode, seed), steps);
        const bool passed = run.Run();
        std::puts(run.Report().c_str());
        if (!passed) KeepLogs(agent, run, folder + "/" + std::to_string(seed));
        failed += passed ? 0 : 1;
        std::fflush(stdout);
    }
    std::printf("%lu of %lu failed\n", failed, seeds);
    return failed == 0 && agent.Stop() == 0 ? 0 : 1;
}
