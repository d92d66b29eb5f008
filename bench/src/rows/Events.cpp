// 598,000 events that need no restore: the writer's rate while a product reads, lost events, and
// the rate at which a product reads a full queue.
#include <fcntl.h>
#include <unistd.h>

#include <fstream>

#include "products/Peers.h"
#include "products/RawWatch.h"
#include "products/Sentrel.h"
#include "rows/BackgroundLoad.h"
#include "rows/Row.h"

namespace Bench {
namespace {

constexpr std::size_t kEvents = 598000;
constexpr milliseconds kTimeout{120000};
constexpr microseconds kPollInterval{1000};
constexpr char kSuffix[] = ".cache";

Products Candidates(const Machine& machine) {
    Products products;
    products.push_back(std::make_unique<RawWatch>(machine, 1));
    products.push_back(std::make_unique<Sentrel>(machine, true));
    products.push_back(std::make_unique<Inotifywait>(machine));
    products.push_back(std::make_unique<Lsyncd>(machine, Lsyncd::Way::kBatch));
    products.push_back(std::make_unique<Watchman>(machine));
    return products;
}

double PerSecond(std::size_t events, double milliseconds_taken) {
    return static_cast<double>(events) / milliseconds_taken * 1000;
}

std::int64_t Overflows(const Product& product) {
    const auto* agent = dynamic_cast<const Sentrel*>(&product);
    return agent == nullptr ? 0 : agent->Status()["counters"]["overflows"].asInt64();
}

bool Drained(Product& product) {
    if (product.Backlog() > 0) return false;
    const auto* agent = dynamic_cast<const Sentrel*>(&product);
    return agent == nullptr || agent->Status()["filenotify"]["pending_events"].asInt64() == 0;
}

void MeasureWriter(Plan& plan, Product& product, const BackgroundLoad& load, const std::string& row,
                   void (BackgroundLoad::*make)(std::size_t) const) {
    for (int run = 0; plan.ShouldRun(run, plan.Runs(5, 2)); ++run) {
        const std::int64_t before = Overflows(product);
        const auto start = Clock::now();
        (load.*make)(kEvents);
        const auto end = Clock::now();
        plan.results.Add(row, product.Name(), PerSecond(kEvents, MsBetween(start, end)));
        const bool drained = WaitUntil(kTimeout, kPollInterval, [&] { return Drained(product); });
        if (!drained) {
            plan.results.Note(row, product.Name(), "not drained after 120 s");
            return;
        }
        if (dynamic_cast<Sentrel*>(&product) == nullptr) continue;
        plan.results.Add(row + "_settled", product.Name(), MsSince(end));
        plan.results.Add(row + "_overflows", product.Name(),
                         static_cast<double>(Overflows(product) - before));
    }
}

/// The product is stopped while its queue fills to nine tenths.
void MeasureDrain(Plan& plan, Product& product, const BackgroundLoad& load, std::size_t capacity) {
    const std::size_t events = std::min(kEvents, capacity / 10 * 9);
    for (int run = 0; plan.ShouldRun(run, plan.Runs(5, 2)); ++run) {
        product.Suspend();
        load.Write(events);
        const bool receives = product.Backlog() > 0;
        const auto start = Clock::now();
        product.Resume();
        if (!receives) {
            plan.results.Note("drain_ignored", product.Name(), "is not told of single writes");
            return;
        }
        const bool drained =
            WaitUntil(kTimeout, microseconds(200), [&] { return Drained(product); });
        const double taken = MsSince(start);
        if (drained) plan.results.Add("drain_ignored", product.Name(), PerSecond(events, taken));
    }
    plan.results.Note("drain_ignored", product.Name(), std::to_string(events) + " events a run");
}

bool MakeSite(TestBed& bed) {
    return MakeTree(bed.Paths().live, {10, 100, 4096}) && bed.ScanAndCopy(false) &&
           MakeLoadFiles(bed.Paths().live, kSuffix, 1000);
}

void MeasureWithoutReader(Plan& plan) {
    TestBed bed(plan.machine, std::make_unique<RawWatch>(plan.machine, 1));
    if (!MakeSite(bed)) return;
    const BackgroundLoad ignored(bed.Paths().live, kSuffix);
    const BackgroundLoad unchanged(bed.Paths().live, ".html");
    for (int run = 0; plan.ShouldRun(run, plan.Runs(5, 2)); ++run) {
        auto start = Clock::now();
        ignored.Write(kEvents);
        plan.results.Add("events_ignored", "nobody", PerSecond(kEvents, MsSince(start)));
        start = Clock::now();
        unchanged.Touch(kEvents);
        plan.results.Add("events_unchanged", "nobody", PerSecond(kEvents, MsSince(start)));
    }
}

}  // namespace

void MeasureEvents(Plan& plan) {
    MeasureWithoutReader(plan);
    for (auto& product : Installed(plan, "events_ignored", Candidates(plan.machine))) {
        plan.Print("events: " + product->Name());
        TestBed bed(plan.machine, std::move(product));
        ProductSettings settings;
        settings.ignored = kSuffix;
        const std::size_t before = QueueCapacity();
        if (!MakeSite(bed) || !CopyTree(bed.Paths().live, bed.Paths().good) ||
            !bed.Start(plan, "events_ignored", settings)) {
            continue;
        }
        bed.UnderTest().Settle();
        const bool ours = dynamic_cast<Sentrel*>(&bed.UnderTest()) != nullptr;
        const BackgroundLoad ignored(bed.Paths().live, kSuffix);
        const BackgroundLoad unchanged(bed.Paths().live, ".html");
        MeasureWriter(plan, bed.UnderTest(), ignored, "events_ignored", &BackgroundLoad::Write);
        MeasureWriter(plan, bed.UnderTest(), unchanged, "events_unchanged", &BackgroundLoad::Touch);
        MeasureDrain(plan, bed.UnderTest(), ignored, ours ? QueueCapacity() : before);
    }
}

}  // namespace Bench
