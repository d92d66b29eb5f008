// 30,000 files modified at once, one guard at a time: what is left tampered, and how long it took.
#include <fstream>
#include <unordered_set>
#include <utility>

#include "guards/AgentGuard.h"
#include "guards/BareRsync.h"
#include "guards/Peers.h"
#include "rows/Row.h"

namespace Bench {
namespace {

constexpr char kRow[] = "storm_30000";
constexpr char kLeft[] = "storm_30000_left";
constexpr TreeShape kShape{300, 100, 4096};
constexpr microseconds kObserve{50000};
constexpr milliseconds kNoProgress{15000};
constexpr milliseconds kPatience{600000};
constexpr milliseconds kPeerPatience{120000};
constexpr milliseconds kReportPatience{120000};
constexpr milliseconds kLoopPatience{20000};
constexpr int kWholeTreeRuns = 3;
constexpr char kWholeTree[] = "bare rsync, whole tree";

std::unique_ptr<Post> Prepare(Plan& plan, std::unique_ptr<Guard> guard) {
    if (!guard->Missing().empty()) {
        plan.results.Note(kRow, guard->Name(), "skipped: " + guard->Missing());
        return nullptr;
    }
    plan.Say("storm: " + guard->Name());
    auto post = std::make_unique<Post>(plan.machine, std::move(guard));
    const bool made = MakeTree(post->Place().live, kShape) &&
                      post->Survey(post->Good() == post->Place().good) &&
                      post->Start(plan, kRow, {});
    return made ? std::move(post) : nullptr;
}

/// Until all are back, or none came back for a while, or the deadline: how many are left.
std::size_t WaitWhileProgress(Outstanding& outstanding, milliseconds deadline) {
    std::size_t left = outstanding.Look();
    auto last = Clock::now();
    WaitUntil(deadline, kObserve, [&] {
        const std::size_t now = outstanding.Look();
        if (now < left) last = Clock::now();
        left = now;
        return left == 0 || Clock::now() - last > kNoProgress;
    });
    return left;
}

void MeasureWholeTree(Plan& plan) {
    auto post = Prepare(plan, std::make_unique<BareRsync>(plan.machine));
    if (!post) return;
    const Command command = dynamic_cast<BareRsync&>(post->Watch()).Restore("");
    for (int run = 0; run < kWholeTreeRuns; ++run) {
        for (const FileState& file : post->Files()) Tamper(post->Live(file));
        const auto start = Clock::now();
        Run(command);
        if (post->Differing(post->Files()) == 0) plan.results.Add(kRow, kWholeTree, MsSince(start));
    }
}

/// `start`: of the writing. How many differences there are is up to the agent's budget for them.
void MeasureReports(Plan& plan, const AgentGuard& agent, const Post& post, std::int64_t before,
                    Clock::time_point start) {
    std::vector<std::string> paths;
    for (const FileState& file : post.Files()) paths.push_back(post.Live(file));
    Reported told;
    const bool all = agent.AwaitReports(before, paths, plan.Patience(kReportPatience), told);
    if (all) plan.results.Add("storm_30000_told", agent.Name(), MsSince(start));
    std::size_t reported = 0;
    std::size_t shown = 0;
    for (const std::string& path : paths) {
        reported += told.paths.count(path);
        shown += told.with_difference.count(path);
    }
    plan.results.Add("storm_30000_reported", agent.Name(), static_cast<double>(reported));
    plan.results.Add("storm_30000_shown", agent.Name(), static_cast<double>(shown));
}

void MeasureOurs(Plan& plan) {
    auto post = Prepare(plan, std::make_unique<AgentGuard>(plan.machine, true));
    if (!post) return;
    auto& agent = dynamic_cast<AgentGuard&>(post->Watch());
    const std::int64_t before = agent.LastReport();
    const auto start = Clock::now();
    for (const FileState& file : post->Files()) Tamper(post->Live(file));
    const double writing = MsSince(start);
    Outstanding outstanding(post->Place().live, post->Files());
    const std::size_t left = WaitWhileProgress(outstanding, plan.Patience(kPatience));
    const double taken = MsSince(start);
    MeasureReports(plan, agent, *post, before, start);
    agent.Settle();
    const std::size_t differing = post->Differing(post->Files());
    plan.results.Add(kLeft, agent.Name(), static_cast<double>(differing));
    if (left == 0) {
        plan.results.Add(kRow, agent.Name(), taken);
        plan.results.Add("storm_30000_each", agent.Name(),
                         taken / static_cast<double>(post->Files().size()));
    }
    plan.results.Note(kRow, agent.Name(),
                      "all written within " + std::to_string(static_cast<int>(writing)) + " ms");
    plan.results.Add("storm_30000_memory", agent.Name(),
                     static_cast<double>(agent.PeakMemoryBytes()) / (1024 * 1024));
}

/// One rsync a file takes the loop some twenty minutes here. After a while it is told to restore no
/// more and only to write down what else it hears of; what it never hears of is lost for good.
void MeasureLoop(Plan& plan) {
    auto post = Prepare(plan, std::make_unique<InotifywaitLoop>(plan.machine));
    if (!post) return;
    const std::string folder = post->Place().scratch;
    for (const FileState& file : post->Files()) Tamper(post->Live(file));
    Outstanding outstanding(post->Place().live, post->Files());
    outstanding.Wait(kLoopPatience, kObserve);
    WriteText(folder + "/drain", "");
    post->Watch().Settle();
    WaitUntil(kNoProgress, milliseconds(500), [size = std::size_t{0}, folder]() mutable {
        const std::size_t before = std::exchange(size, ReadFile(folder + "/told").size());
        return size > 0 && size == before;
    });
    std::unordered_set<std::string> told;
    std::ifstream names(folder + "/told");
    for (std::string name; std::getline(names, name);) told.insert(name);
    std::size_t lost = 0;
    for (const FileState& file : post->Files()) {
        const std::string path = post->Live(file);
        lost += !IsBack(path, file) && told.count(path) == 0 ? 1U : 0U;
    }
    const std::string name = post->Watch().Name();
    plan.results.Add(kLeft, name, static_cast<double>(lost));
    plan.results.Note(kLeft, name,
                      "for good: never told; the rest waits its turn, one rsync after the other");
}

void MeasurePeer(Plan& plan, std::unique_ptr<Guard> guard) {
    auto post = Prepare(plan, std::move(guard));
    if (!post) return;
    const auto start = Clock::now();
    for (const FileState& file : post->Files()) Tamper(post->Live(file));
    Outstanding outstanding(post->Place().live, post->Files());
    const std::size_t left = WaitWhileProgress(outstanding, kPeerPatience);
    const std::string name = post->Watch().Name();
    if (left == 0) plan.results.Add(kRow, name, MsSince(start));
    plan.results.Add(kLeft, name, static_cast<double>(left));
    if (left > 0) {
        plan.results.Note(
            kLeft, name,
            post->Watch().Runs()
                ? "after " + std::to_string(static_cast<int>(MsSince(start) / 1000)) + " s"
                : "it ended by itself");
    }
}

}  // namespace

void MeasureStorm(Plan& plan) {
    MeasureOurs(plan);
    if (plan.brief) return;
    MeasureWholeTree(plan);
    MeasureLoop(plan);
    MeasurePeer(plan, std::make_unique<Lsyncd>(plan.machine, Lsyncd::Way::kBatch));
    MeasurePeer(plan, std::make_unique<Watchman>(plan.machine));
}

}  // namespace Bench
