// The first backup of 200,000 files: ours from the policy to "backup complete", beside one rsync.
#include <unistd.h>

#include <filesystem>

#include "guards/AgentGuard.h"
#include "rows/Row.h"

namespace Bench {
namespace {

constexpr char kRow[] = "backup_200000";
constexpr TreeShape kShape{2000, 100, 1024};
constexpr milliseconds kPatience{300000};

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

/// Applied anew, a policy makes its backup anew; without a copy it is a first one.
bool MeasureOurs(Plan& plan, Post& post, const GuardSettings& settings, const std::string& put_by) {
    auto& agent = dynamic_cast<AgentGuard&>(post.Watch());
    ::sync();
    if (!agent.Protect(post.Place(), settings)) {
        plan.results.Note(kRow, agent.Name(), agent.Problem());
        return false;
    }
    plan.results.Add(kRow, agent.Name(), agent.BackupMs());
    agent.Unprotect();
    std::filesystem::rename(agent.GoodRoot(post.Place()), put_by);
    return true;
}

}  // namespace

void MeasureBackup(Plan& plan) {
    Post post(plan.machine, std::make_unique<AgentGuard>(plan.machine, true));
    auto& agent = dynamic_cast<AgentGuard&>(post.Watch());
    plan.Say("making 200,000 files");
    if (!MakeTree(post.Place().live, kShape)) return;
    if (!agent.StartAgent(post.Place())) {
        plan.results.Note(kRow, agent.Name(), agent.Problem());
        return;
    }
    GuardSettings settings;
    settings.deadline = kPatience;
    // Nothing is removed in between: for a minute ext4 steps over each inode that was freed, which
    // makes whatever is copied next many times slower.
    const std::string old = post.Place().scratch + "/copied";
    for (int run = 0; plan.Goes(run, plan.Runs(5, 2)); ++run) {
        plan.Say("backup, run " + std::to_string(run + 1));
        const std::string suffix = std::to_string(run);
        const auto bare = [&] {
            plan.results.Add(kRow, "bare rsync",
                             BareMs(plan, post.Place(), old + "/bare" + suffix + "/"));
            return true;
        };
        const auto ours = [&] { return MeasureOurs(plan, post, settings, old + "/ours" + suffix); };
        // Each has the first turn as often as the other: what one has written slows the next.
        if (!(run % 2 == 0 ? bare() && ours() : ours() && bare())) return;
    }
}

}  // namespace Bench
