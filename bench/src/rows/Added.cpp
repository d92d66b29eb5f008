// 10,000 added files: from the last addition until all are removed and reported.
#include <unistd.h>

#include <filesystem>

#include "products/Sentrel.h"
#include "rows/Row.h"

namespace Bench {
namespace {

constexpr char kRow[] = "added_10000";
constexpr std::size_t kDirectories = 100;
constexpr std::size_t kEach = 100;
constexpr std::size_t kBytes = 1024;
constexpr milliseconds kTimeout{120000};
constexpr microseconds kPollInterval{5000};

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

void MeasureOne(Plan& plan, TestBed& bed, int run) {
    auto& agent = dynamic_cast<Sentrel&>(bed.UnderTest());
    const std::int64_t before = agent.LastReport();
    std::vector<std::string> left = Add(bed.Paths().live, run);
    const std::vector<std::string> added = left;
    const auto last = Clock::now();
    const bool removed = WaitUntil(plan.Timeout(kTimeout), kPollInterval, [&] {
        while (!left.empty() && ::access(left.back().c_str(), F_OK) != 0) left.pop_back();
        return left.empty();
    });
    const double removed_ms = MsSince(last);
    const auto wanted = static_cast<std::int64_t>(added.size());
    const bool reported = WaitUntil(plan.Timeout(kTimeout), kPollInterval,
                                    [&] { return agent.LastReport() - before >= wanted; });
    const double reported_ms = MsSince(last);
    const AlarmPaths alarms = agent.Since(before);
    std::size_t missing = 0;
    for (const std::string& path : added) missing += 1U - alarms.paths.count(path);
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
    TestBed bed(plan.machine, std::make_unique<Sentrel>(plan.machine, true));
    if (!MakeTree(bed.Paths().live, {kDirectories, 10, 4096}) || !bed.ScanAndCopy(false) ||
        !bed.Start(plan, kRow, {})) {
        return;
    }
    for (int run = 0; plan.ShouldRun(run, plan.Runs(5, 2)); ++run) {
        plan.Print("added, run " + std::to_string(run + 1));
        MeasureOne(plan, bed, run);
    }
}

}  // namespace Bench
