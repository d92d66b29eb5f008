// 30,000 files modified at once, with one product at a time: the files left and the time.
#include <fstream>
#include <unordered_set>
#include <utility>

#include "products/BareRsync.h"
#include "products/Peers.h"
#include "products/Sentrel.h"
#include "rows/Row.h"

namespace Bench {
namespace {

constexpr char kRow[] = "storm_30000";
constexpr char kLeft[] = "storm_30000_left";
constexpr TreeShape kShape{300, 100, 4096};
constexpr microseconds kPollInterval{50000};
constexpr milliseconds kNoProgressLimit{15000};
constexpr milliseconds kTimeout{600000};
constexpr milliseconds kPeerTimeout{120000};
constexpr milliseconds kReportTimeout{120000};
constexpr milliseconds kLoopTimeout{20000};
constexpr int kWholeTreeRuns = 3;
constexpr char kWholeTree[] = "bare rsync, whole tree";

std::unique_ptr<TestBed> Prepare(Plan& plan, std::unique_ptr<Product> product) {
    if (!product->Missing().empty()) {
        plan.results.Note(kRow, product->Name(), "skipped: " + product->Missing());
        return nullptr;
    }
    plan.Print("storm: " + product->Name());
    auto bed = std::make_unique<TestBed>(plan.machine, std::move(product));
    const bool made = MakeTree(bed->Paths().live, kShape) &&
                      bed->ScanAndCopy(bed->CopyRoot() == bed->Paths().good) &&
                      bed->Start(plan, kRow, {});
    return made ? std::move(bed) : nullptr;
}

/// Waits until all are restored, progress has stopped, or the deadline has passed; the number left.
std::size_t WaitWhileProgress(Outstanding& outstanding, milliseconds deadline) {
    std::size_t left = outstanding.Look();
    auto last = Clock::now();
    WaitUntil(deadline, kPollInterval, [&] {
        const std::size_t now = outstanding.Look();
        if (now < left) last = Clock::now();
        left = now;
        return left == 0 || Clock::now() - last > kNoProgressLimit;
    });
    return left;
}

void MeasureWholeTree(Plan& plan) {
    auto bed = Prepare(plan, std::make_unique<BareRsync>(plan.machine));
    if (!bed) return;
    const Command command = dynamic_cast<BareRsync&>(bed->UnderTest()).Restore("");
    for (int run = 0; run < kWholeTreeRuns; ++run) {
        for (const FileState& file : bed->Files()) Tamper(bed->LivePath(file));
        const auto start = Clock::now();
        Run(command);
        if (bed->Differing(bed->Files()) == 0) plan.results.Add(kRow, kWholeTree, MsSince(start));
    }
}

/// `start` is the begin of the writes. The agent's budget limits the number of differences.
void MeasureReports(Plan& plan, const Sentrel& agent, const TestBed& bed, std::int64_t before,
                    Clock::time_point start) {
    std::vector<std::string> paths;
    for (const FileState& file : bed.Files()) paths.push_back(bed.LivePath(file));
    AlarmPaths alarms;
    const bool all = agent.AwaitReports(before, paths, plan.Timeout(kReportTimeout), alarms);
    if (all) plan.results.Add("storm_30000_told", agent.Name(), MsSince(start));
    std::size_t reported = 0;
    std::size_t shown = 0;
    for (const std::string& path : paths) {
        reported += alarms.paths.count(path);
        shown += alarms.with_difference.count(path);
    }
    plan.results.Add("storm_30000_reported", agent.Name(), static_cast<double>(reported));
    plan.results.Add("storm_30000_shown", agent.Name(), static_cast<double>(shown));
}

void MeasureSentrel(Plan& plan) {
    auto bed = Prepare(plan, std::make_unique<Sentrel>(plan.machine, true));
    if (!bed) return;
    auto& agent = dynamic_cast<Sentrel&>(bed->UnderTest());
    const std::int64_t before = agent.LastReport();
    const auto start = Clock::now();
    for (const FileState& file : bed->Files()) Tamper(bed->LivePath(file));
    const double writing = MsSince(start);
    Outstanding outstanding(bed->Paths().live, bed->Files());
    const std::size_t left = WaitWhileProgress(outstanding, plan.Timeout(kTimeout));
    const double taken = MsSince(start);
    MeasureReports(plan, agent, *bed, before, start);
    agent.Settle();
    const std::size_t differing = bed->Differing(bed->Files());
    plan.results.Add(kLeft, agent.Name(), static_cast<double>(differing));
    if (left == 0) {
        plan.results.Add(kRow, agent.Name(), taken);
        plan.results.Add("storm_30000_each", agent.Name(),
                         taken / static_cast<double>(bed->Files().size()));
    }
    plan.results.Note(kRow, agent.Name(),
                      "all written within " + std::to_string(static_cast<int>(writing)) + " ms");
    plan.results.Add("storm_30000_memory", agent.Name(),
                     static_cast<double>(agent.PeakMemoryBytes()) / (1024 * 1024));
}

/// With one rsync per file the loop takes some twenty minutes. After a while it is switched to
/// write the names of further events without restoring. A file without an event is lost.
void MeasureLoop(Plan& plan) {
    auto bed = Prepare(plan, std::make_unique<InotifywaitLoop>(plan.machine));
    if (!bed) return;
    const std::string folder = bed->Paths().scratch;
    for (const FileState& file : bed->Files()) Tamper(bed->LivePath(file));
    Outstanding outstanding(bed->Paths().live, bed->Files());
    outstanding.Wait(kLoopTimeout, kPollInterval);
    WriteText(folder + "/drain", "");
    bed->UnderTest().Settle();
    WaitUntil(kNoProgressLimit, milliseconds(500), [size = std::size_t{0}, folder]() mutable {
        const std::size_t before = std::exchange(size, ReadFile(folder + "/told").size());
        return size > 0 && size == before;
    });
    std::unordered_set<std::string> reported;
    std::ifstream names(folder + "/told");
    for (std::string name; std::getline(names, name);) reported.insert(name);
    std::size_t lost = 0;
    for (const FileState& file : bed->Files()) {
        const std::string path = bed->LivePath(file);
        lost += !IsRestored(path, file) && reported.count(path) == 0 ? 1U : 0U;
    }
    const std::string name = bed->UnderTest().Name();
    plan.results.Add(kLeft, name, static_cast<double>(lost));
    plan.results.Note(kLeft, name,
                      "for good: never told; the rest waits its turn, one rsync after the other");
}

void MeasurePeer(Plan& plan, std::unique_ptr<Product> product) {
    auto bed = Prepare(plan, std::move(product));
    if (!bed) return;
    const auto start = Clock::now();
    for (const FileState& file : bed->Files()) Tamper(bed->LivePath(file));
    Outstanding outstanding(bed->Paths().live, bed->Files());
    const std::size_t left = WaitWhileProgress(outstanding, kPeerTimeout);
    const std::string name = bed->UnderTest().Name();
    if (left == 0) plan.results.Add(kRow, name, MsSince(start));
    plan.results.Add(kLeft, name, static_cast<double>(left));
    if (left > 0) {
        plan.results.Note(
            kLeft, name,
            bed->UnderTest().Runs()
                ? "after " + std::to_string(static_cast<int>(MsSince(start) / 1000)) + " s"
                : "it ended by itself");
    }
}

}  // namespace

void MeasureStorm(Plan& plan) {
    MeasureSentrel(plan);
    if (plan.brief) return;
    MeasureWholeTree(plan);
    MeasureLoop(plan);
    MeasurePeer(plan, std::make_unique<Lsyncd>(plan.machine, Lsyncd::Way::kBatch));
    MeasurePeer(plan, std::make_unique<Watchman>(plan.machine));
}

}  // namespace Bench
