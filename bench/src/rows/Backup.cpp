// The first backup of 200,000 files: Sentrel from the policy to "backup complete", and one rsync.
#include <unistd.h>

#include <filesystem>

#include "products/Sentrel.h"
#include "rows/Row.h"

namespace Bench {
namespace {

constexpr char kRow[] = "backup_200000";
constexpr TreeShape kShape{2000, 100, 1024};
constexpr milliseconds kTimeout{300000};

double BareMs(const Plan& plan, const Site& site, const std::string& to) {
    Command command;
    command.arguments = RestoreArguments(kRsync);
    for (const std::string& argument : {std::string("-R"), site.live, to}) {
        command.arguments.push_back(argument);
    }
    command.environment = PlainEnvironment(plan.machine);
    std::filesystem::create_directories(to);
    ::sync();
    const auto start = Clock::now();
    Run(command);
    return MsSince(start);
}

/// Applies the policy without an existing copy, so that it makes a first backup.
bool MeasureSentrel(Plan& plan, TestBed& bed, const ProductSettings& settings,
                    const std::string& put_by) {
    auto& agent = dynamic_cast<Sentrel&>(bed.UnderTest());
    ::sync();
    if (!agent.Protect(bed.Paths(), settings)) {
        plan.results.Note(kRow, agent.Name(), agent.Problem());
        return false;
    }
    plan.results.Add(kRow, agent.Name(), agent.BackupMs());
    const double manifest = agent.ManifestMs();
    if (manifest >= 0) plan.results.Add("backup_manifest", agent.Name(), manifest);
    agent.Unprotect();
    std::filesystem::rename(agent.CopyRoot(bed.Paths()), put_by);
    return true;
}

}  // namespace

void MeasureBackup(Plan& plan) {
    TestBed bed(plan.machine, std::make_unique<Sentrel>(plan.machine, true));
    auto& agent = dynamic_cast<Sentrel&>(bed.UnderTest());
    plan.Print("making 200,000 files");
    if (!MakeTree(bed.Paths().live, kShape)) return;
    if (!agent.StartAgent(bed.Paths())) {
        plan.results.Note(kRow, agent.Name(), agent.Problem());
        return;
    }
    ProductSettings settings;
    settings.deadline = kTimeout;
    // Old copies stay: for a minute ext4 skips each freed inode, which makes the next copy many
    // times slower.
    const std::string old = bed.Paths().scratch + "/copied";
    for (int run = 0; plan.ShouldRun(run, plan.Runs(5, 2)); ++run) {
        plan.Print("backup, run " + std::to_string(run + 1));
        const std::string suffix = std::to_string(run);
        const auto bare = [&] {
            plan.results.Add(kRow, "bare rsync",
                             BareMs(plan, bed.Paths(), old + "/bare" + suffix + "/"));
            return true;
        };
        const auto ours = [&] {
            return MeasureSentrel(plan, bed, settings, old + "/ours" + suffix);
        };
        // The order alternates, since the writes of one slow the next.
        if (!(run % 2 == 0 ? bare() && ours() : ours() && bare())) return;
    }
}

}  // namespace Bench
