// 1,000 files modified as fast as one process can write, until all are restored.
#include "products/BareRsync.h"
#include "products/Peers.h"
#include "products/Sentrel.h"
#include "rows/Row.h"

namespace Bench {
namespace {

constexpr char kRow[] = "burst_1000";
constexpr std::size_t kFiles = 1000;
constexpr double kMebibyte = 1024 * 1024;
constexpr milliseconds kTimeout{150000};
constexpr microseconds kPollInterval{2000};

struct Candidate {
    std::unique_ptr<Product> product;
    int runs;
};

std::vector<Candidate> Candidates(const Plan& plan) {
    const Machine& machine = plan.machine;
    const int runs = plan.Runs(5, 2);
    const int slow = plan.Runs(3, 0);  // no faster than rsync in sequence
    std::vector<Candidate> all;
    all.push_back({std::make_unique<BareRsync>(machine), plan.Runs(5, 1)});
    all.push_back({std::make_unique<Sentrel>(machine, true), runs});
    if (Sentrel::CanDisableFastPaths(machine)) {
        all.push_back({std::make_unique<Sentrel>(machine, false), plan.Runs(5, 0)});
    }
    all.push_back({std::make_unique<InotifywaitLoop>(machine), slow});
    all.push_back({std::make_unique<Lsyncd>(machine, Lsyncd::Way::kFile), slow});
    all.push_back({std::make_unique<Lsyncd>(machine, Lsyncd::Way::kPool), runs});
    all.push_back({std::make_unique<Lsyncd>(machine, Lsyncd::Way::kBatch), runs});
    all.push_back({std::make_unique<Watchman>(machine), runs});
    return all;
}

/// Each run has its own files: a second alarm of a file within a minute would be merged.
std::vector<FileState> FilesOf(const TestBed& bed, int run) {
    const auto first = bed.Files().begin() + static_cast<long>(kFiles) * run;
    return {first, first + static_cast<long>(kFiles)};
}

std::vector<std::string> PathsOf(const TestBed& bed, const std::vector<FileState>& files) {
    std::vector<std::string> paths;
    for (const FileState& file : files) paths.push_back(bed.LivePath(file));
    return paths;
}

/// The short form times every fourth file and restores the others with one rsync.
double RestoreInSequence(Plan& plan, BareRsync& bare, const std::vector<FileState>& files) {
    const std::size_t step = plan.brief ? 4 : 1;
    if (plan.brief) plan.results.Note(kRow, bare.Name(), "250 files, times four");
    const auto start = Clock::now();
    for (std::size_t i = 0; i < files.size(); i += step) Run(bare.Restore(files[i].path));
    const double taken = MsSince(start) * static_cast<double>(step);
    if (plan.brief) Run(bare.Restore(""));
    return taken;
}

/// `start` is the begin of the writes. An alarm without a difference does not count.
void MeasureReports(Plan& plan, const Sentrel& agent, std::int64_t before, Clock::time_point start,
                    const std::vector<std::string>& paths) {
    AlarmPaths alarms;
    const bool all = agent.AwaitReports(before, paths, plan.Timeout(kTimeout), alarms);
    const double taken = MsSince(start);
    std::size_t shown = 0;
    for (const std::string& path : paths) shown += alarms.with_difference.count(path);
    plan.results.Add("burst_1000_reported", agent.Name(), static_cast<double>(shown));
    if (all && shown == paths.size()) {
        plan.results.Add("burst_1000_told", agent.Name(), taken);
    } else {
        plan.results.Note("burst_1000_told", agent.Name(),
                          "not all were reported with their difference");
    }
}

void MeasureOne(Plan& plan, TestBed& bed, int run) {
    Product& product = bed.UnderTest();
    const std::vector<FileState> files = FilesOf(bed, run);
    auto* agent = dynamic_cast<Sentrel*>(&product);
    const std::int64_t before = agent == nullptr ? 0 : agent->LastReport();
    const auto cpu = product.CpuTime();
    const auto start = Clock::now();
    for (const FileState& file : files) Tamper(bed.LivePath(file));
    double milliseconds_taken = 0;
    Outstanding outstanding(bed.Paths().live, files);
    if (auto* bare = dynamic_cast<BareRsync*>(&product)) {
        milliseconds_taken = RestoreInSequence(plan, *bare, files);
        outstanding.Look();
    } else {
        outstanding.Wait(plan.Timeout(kTimeout), kPollInterval);
        milliseconds_taken = MsSince(start);
    }
    if (agent != nullptr) MeasureReports(plan, *agent, before, start, PathsOf(bed, files));
    product.Settle();
    const std::size_t left = bed.Differing(files);
    if (left > 0) {
        plan.results.Note(kRow, product.Name(), std::to_string(left) + " of 1,000 left");
    } else {
        plan.results.Add(kRow, product.Name(), milliseconds_taken);
        plan.results.Add("burst_1000_each", product.Name(), milliseconds_taken / kFiles);
    }
    const auto most = static_cast<double>(product.PeakMemoryBytes());
    if (most > 0) plan.results.Add("burst_1000_memory", product.Name(), most / kMebibyte);
    if (agent == nullptr) return;
    const double used = std::chrono::duration<double, std::micro>(product.CpuTime() - cpu).count();
    plan.results.Add("burst_1000_cpu", product.Name(), used / static_cast<double>(kFiles));
}

}  // namespace

void MeasureBurst(Plan& plan) {
    std::vector<std::pair<std::unique_ptr<TestBed>, int>> beds;
    int rounds = 0;
    for (Candidate& one : Candidates(plan)) {
        if (one.runs == 0) continue;
        if (const std::string missing = one.product->Missing(); !missing.empty()) {
            plan.results.Note(kRow, one.product->Name(), "skipped: " + missing);
            continue;
        }
        auto bed = std::make_unique<TestBed>(plan.machine, std::move(one.product));
        const auto directories = static_cast<std::size_t>(one.runs) * kFiles / 10;
        if (MakeTree(bed->Paths().live, {directories, 10, 4096}) &&
            bed->ScanAndCopy(bed->CopyRoot() == bed->Paths().good) && bed->Start(plan, kRow, {})) {
            rounds = std::max(rounds, one.runs);
            beds.emplace_back(std::move(bed), one.runs);
        }
    }
    for (int run = 0; plan.ShouldRun(run, rounds); ++run) {
        for (auto& [bed, runs] : beds) {
            if (run >= runs) continue;
            plan.Print("burst " + std::to_string(run + 1) + ": " + bed->UnderTest().Name());
            MeasureOne(plan, *bed, run);
        }
    }
}

}  // namespace Bench
