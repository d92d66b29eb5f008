// 1,000 files modified as fast as one process writes, until all are back.
#include "guards/AgentGuard.h"
#include "guards/BareRsync.h"
#include "guards/Peers.h"
#include "rows/Row.h"

namespace Bench {
namespace {

constexpr char kRow[] = "burst_1000";
constexpr std::size_t kFiles = 1000;
constexpr double kMebibyte = 1024 * 1024;
constexpr milliseconds kPatience{150000};
constexpr microseconds kObserve{2000};

struct Contestant {
    std::unique_ptr<Guard> guard;
    int runs;
};

std::vector<Contestant> Contestants(const Plan& plan) {
    const Machine& machine = plan.machine;
    const int runs = plan.Runs(5, 2);
    const int slow = plan.Runs(3, 0);  // as slow as the sequence itself
    std::vector<Contestant> all;
    all.push_back({std::make_unique<BareRsync>(machine), plan.Runs(5, 1)});
    all.push_back({std::make_unique<AgentGuard>(machine, true), runs});
    if (AgentGuard::HasPlainForm(machine)) {
        all.push_back({std::make_unique<AgentGuard>(machine, false), plan.Runs(5, 0)});
    }
    all.push_back({std::make_unique<InotifywaitLoop>(machine), slow});
    all.push_back({std::make_unique<Lsyncd>(machine, Lsyncd::Way::kFile), slow});
    all.push_back({std::make_unique<Lsyncd>(machine, Lsyncd::Way::kPool), runs});
    all.push_back({std::make_unique<Lsyncd>(machine, Lsyncd::Way::kBatch), runs});
    all.push_back({std::make_unique<Watchman>(machine), runs});
    return all;
}

/// Files of their own for each run: a second alarm of a file within a minute would be merged.
std::vector<FileState> FilesOf(const Post& post, int run) {
    const auto first = post.Files().begin() + static_cast<long>(kFiles) * run;
    return {first, first + static_cast<long>(kFiles)};
}

std::vector<std::string> PathsOf(const Post& post, const std::vector<FileState>& files) {
    std::vector<std::string> paths;
    for (const FileState& file : files) paths.push_back(post.Live(file));
    return paths;
}

/// In the short form each fourth is timed, as each takes the same, and the rest put back at once.
double RestoreInSequence(Plan& plan, BareRsync& bare, const std::vector<FileState>& files) {
    const std::size_t step = plan.brief ? 4 : 1;
    if (plan.brief) plan.results.Note(kRow, bare.Name(), "250 files, times four");
    const auto start = Clock::now();
    for (std::size_t i = 0; i < files.size(); i += step) Run(bare.Restore(files[i].path));
    const double taken = MsSince(start) * static_cast<double>(step);
    if (plan.brief) Run(bare.Restore(""));
    return taken;
}

/// `start`: of the writing. Files whose alarm shows no difference do not count as reported.
void MeasureReports(Plan& plan, const AgentGuard& agent, std::int64_t before,
                    Clock::time_point start, const std::vector<std::string>& paths) {
    Reported told;
    const bool all = agent.AwaitReports(before, paths, plan.Patience(kPatience), told);
    const double taken = MsSince(start);
    std::size_t shown = 0;
    for (const std::string& path : paths) shown += told.with_difference.count(path);
    plan.results.Add("burst_1000_reported", agent.Name(), static_cast<double>(shown));
    if (all && shown == paths.size()) {
        plan.results.Add("burst_1000_told", agent.Name(), taken);
    } else {
        plan.results.Note("burst_1000_told", agent.Name(),
                          "not all were reported with their difference");
    }
}

void MeasureOne(Plan& plan, Post& post, int run) {
    Guard& guard = post.Watch();
    const std::vector<FileState> files = FilesOf(post, run);
    auto* agent = dynamic_cast<AgentGuard*>(&guard);
    const std::int64_t before = agent == nullptr ? 0 : agent->LastReport();
    const auto cpu = guard.CpuTime();
    const auto start = Clock::now();
    for (const FileState& file : files) Tamper(post.Live(file));
    double milliseconds_taken = 0;
    Outstanding outstanding(post.Place().live, files);
    if (auto* bare = dynamic_cast<BareRsync*>(&guard)) {
        milliseconds_taken = RestoreInSequence(plan, *bare, files);
        outstanding.Look();
    } else {
        outstanding.Wait(plan.Patience(kPatience), kObserve);
        milliseconds_taken = MsSince(start);
    }
    if (agent != nullptr) MeasureReports(plan, *agent, before, start, PathsOf(post, files));
    guard.Settle();
    const std::size_t left = post.Differing(files);
    if (left > 0) {
        plan.results.Note(kRow, guard.Name(), std::to_string(left) + " of 1,000 left");
    } else {
        plan.results.Add(kRow, guard.Name(), milliseconds_taken);
        plan.results.Add("burst_1000_each", guard.Name(), milliseconds_taken / kFiles);
    }
    const auto most = static_cast<double>(guard.PeakMemoryBytes());
    if (most > 0) plan.results.Add("burst_1000_memory", guard.Name(), most / kMebibyte);
    if (agent == nullptr) return;
    const double used = std::chrono::duration<double, std::micro>(guard.CpuTime() - cpu).count();
    plan.results.Add("burst_1000_cpu", guard.Name(), used / static_cast<double>(kFiles));
}

}  // namespace

void MeasureBurst(Plan& plan) {
    std::vector<std::pair<std::unique_ptr<Post>, int>> posts;
    int rounds = 0;
    for (Contestant& one : Contestants(plan)) {
        if (one.runs == 0) continue;
        if (const std::string missing = one.guard->Missing(); !missing.empty()) {
            plan.results.Note(kRow, one.guard->Name(), "skipped: " + missing);
            continue;
        }
        auto post = std::make_unique<Post>(plan.machine, std::move(one.guard));
        const auto directories = static_cast<std::size_t>(one.runs) * kFiles / 10;
        if (MakeTree(post->Place().live, {directories, 10, 4096}) &&
            post->Survey(post->Good() == post->Place().good) && post->Start(plan, kRow, {})) {
            rounds = std::max(rounds, one.runs);
            posts.emplace_back(std::move(post), one.runs);
        }
    }
    for (int run = 0; plan.Goes(run, rounds); ++run) {
        for (auto& [post, runs] : posts) {
            if (run >= runs) continue;
            plan.Say("burst " + std::to_string(run + 1) + ": " + post->Watch().Name());
            MeasureOne(plan, *post, run);
        }
    }
}

}  // namespace Bench
