// A product is stopped until its queue overflows, and then 3,000 files are changed, for which it
// gets no events. How many does it restore when it runs again?
#include "products/Peers.h"
#include "products/Sentrel.h"
#include "rows/BackgroundLoad.h"
#include "rows/Row.h"

namespace Bench {
namespace {

constexpr char kRow[] = "overflow_left";
constexpr std::size_t kFiles = 3000;
constexpr std::size_t kMore = 1000;
constexpr char kSuffix[] = ".cache";
constexpr milliseconds kTimeout{180000};
constexpr milliseconds kNoProgressLimit{20000};
constexpr microseconds kPollInterval{20000};

Products Candidates(const Machine& machine) {
    Products products;
    products.push_back(std::make_unique<Sentrel>(machine, true));
    products.push_back(std::make_unique<InotifywaitLoop>(machine));
    products.push_back(std::make_unique<Lsyncd>(machine, Lsyncd::Way::kBatch));
    products.push_back(std::make_unique<Watchman>(machine));
    return products;
}

void MeasureOne(Plan& plan, TestBed& bed, std::size_t capacity) {
    Product& product = bed.UnderTest();
    const BackgroundLoad load(bed.Paths().live, kSuffix);
    product.Suspend();
    load.Touch(capacity + kMore);
    for (const FileState& file : bed.Files()) Tamper(bed.LivePath(file));
    const auto start = Clock::now();
    product.Resume();
    Outstanding outstanding(bed.Paths().live, bed.Files());
    std::size_t left = bed.Files().size();
    auto last = start;
    WaitUntil(plan.Timeout(kTimeout), kPollInterval, [&] {
        const std::size_t now = outstanding.Look();
        if (now < left) last = Clock::now();
        left = now;
        return left == 0 || Clock::now() - last > kNoProgressLimit;
    });
    if (left == 0) plan.results.Add("overflow_back", product.Name(), MsSince(start));
    plan.results.Add(kRow, product.Name(), static_cast<double>(left));
    if (!product.Runs()) plan.results.Note(kRow, product.Name(), "it ended by itself");
}

}  // namespace

void MeasureOverflow(Plan& plan) {
    for (int run = 0; plan.ShouldRun(run, plan.Runs(2, 1)); ++run) {
        for (auto& product : Installed(plan, kRow, Candidates(plan.machine))) {
            plan.Print("overflow: " + product->Name());
            const std::size_t before = QueueCapacity();
            TestBed bed(plan.machine, std::move(product));
            ProductSettings settings;
            settings.ignored = kSuffix;
            if (!MakeTree(bed.Paths().live, {kFiles / 10, 10, 4096}) ||
                !bed.ScanAndCopy(bed.CopyRoot() == bed.Paths().good) ||
                !MakeLoadFiles(bed.Paths().live, kSuffix, 1000) ||
                !bed.Start(plan, kRow, settings)) {
                continue;
            }
            bed.UnderTest().Settle();
            const bool ours = dynamic_cast<Sentrel*>(&bed.UnderTest()) != nullptr;
            MeasureOne(plan, bed, ours ? QueueCapacity() : before);
        }
    }
}

}  // namespace Bench
