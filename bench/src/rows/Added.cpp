// 10,000 files added by a storm: until all are removed and reported, from the last one on.
#include <unistd.h>

#include <filesystem>

#include "guards/AgentGuard.h"
#include "rows/Row.h"

namespace Bench {
namespace {

constexpr char kRow[] = "added_10000";
constexpr std::size_t kDirectories = 100;
constexpr std::size_t kEach = 100;
constexpr std::size_t kBytes = 1024;
constexpr milliseconds kPatience{120000};
constexpr microseconds kObserve{5000};

std::vector<std::string> Add(const std::string& live, int run) {
    std::vector<std::string> folders;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(live)) {
        if (entry.is_directory()) folders.push_back(entry.path().string());
    }
    std::vector<std::string> added;
    for (std::size_t i = 0; i < kEach; ++i) {
        for (const std::string& folder : folders) {
            added.push_back(folder + "/shell" + std::to_string(run) + "-" + std::to_string(i) +
                            ".php");
            MakeFile(added.back(), kBytes, static_cast<unsigned>(i));
        }
    }
    return added;
}

void MeasureOne(Plan& plan, Post& post, int run) {
    auto& agent = dynamic_cast<AgentGuard&>(post.Watch());
    const std::int64_t before = agent.LastReport();
    std::vector<std::string> left = Add(post.Place().live, run);
    const std::vector<std::string> added = left;
    const auto last = Clock::now();
    const bool removed = WaitUntil(plan.Patience(kPatience), kObserve, [&] {
        while (!left.empty() && ::access(left.back().c_str(), F_OK) != 0) left.pop_back();
        return left.empty();
    });
    const double removed_ms = MsSince(last);
    const auto wanted = static_cast<std::int64_t>(added.size());
    const bool reported = WaitUntil(plan.Patience(kPatience), kObserve,
                                    [&] { return agent.LastReport() - before >= wanted; });
    const double reported_ms = MsSince(last);
    const Reported told = agent.Since(before);
    std::size_t missing = 0;
    for (const std::string& path : added) missing += 1U - told.paths.count(path);
    if (removed) plan.results.Add("added_10000_removed", agent.Name(), removed_ms);
    if (removed && reported && missing == 0) {
        plan.results.Add(kRow, agent.Name(), reported_ms);
    } else {
        plan.results.Note(kRow, agent.Name(),
                          std::to_string(left.size()) + " not removed, " + std::to_string(missing) +
                              " not reported in a run");
    }
    agent.Settle();
}

}  // namespace

void MeasureAdded(Plan& plan) {
    Post post(plan.machine, std::make_unique<AgentGuard>(plan.machine, true));
    if (!MakeTree(post.Place().live, {kDirectories, 10, 4096}) || !post.Survey(false) ||
        !post.Start(plan, kRow, {})) {
        return;
    }
    for (int run = 0; plan.Goes(run, plan.Runs(5, 2)); ++run) {
        plan.Say("added, run " + std::to_string(run + 1));
        MeasureOne(plan, post, run);
    }
}

}  // namespace Bench
