// A writer in excluded directories of a protected site, in turns with the same writer in
// directories that nobody watches. Many short turns, the order of which alternates: a machine's
// speed changes by more than what is measured.
#include "products/Sentrel.h"
#include "rows/BackgroundLoad.h"
#include "rows/Row.h"

namespace Bench {
namespace {

constexpr std::size_t kEvents = 150000;
constexpr std::size_t kFiles = 1000;
constexpr char kRow[] = "excluded";
constexpr char kFolder[] = "uploads";
constexpr char kSuffix[] = ".cache";

bool MakeFolder(const std::string& path) {
    return MakeTree(path, {10, 100, 64}) && MakeLoadFiles(path, kSuffix, kFiles);
}

double Rate(const BackgroundLoad& load) {
    const auto start = Clock::now();
    load.Write(kEvents);
    return static_cast<double>(kEvents) / MsSince(start) * 1000;
}

}  // namespace

void MeasureExcluded(Plan& plan) {
    TestBed bed(plan.machine, std::make_unique<Sentrel>(plan.machine, true));
    const std::string excluded = bed.Paths().live + "/" + kFolder;
    const std::string unwatched = bed.Paths().scratch + "/" + kFolder;
    ProductSettings settings;
    settings.excluded_folder = kFolder;
    if (!MakeTree(bed.Paths().live, {10, 100, 4096}) || !bed.ScanAndCopy(false) ||
        !MakeFolder(excluded) || !MakeFolder(unwatched) || !bed.Start(plan, kRow, settings)) {
        return;
    }
    bed.UnderTest().Settle();
    const BackgroundLoad in_excluded(excluded, kSuffix);
    const BackgroundLoad in_unwatched(unwatched, kSuffix);
    const std::string ours = bed.UnderTest().Name();
    for (int run = 0; plan.ShouldRun(run, plan.Runs(61, 41)); ++run) {
        if (run % 2 != 0) plan.results.Add(kRow, ours, Rate(in_excluded));
        plan.results.Add(kRow, "nobody", Rate(in_unwatched));
        if (run % 2 == 0) plan.results.Add(kRow, ours, Rate(in_excluded));
    }
}

}  // namespace Bench
