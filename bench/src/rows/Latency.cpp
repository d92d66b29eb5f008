// One file modified at a time, with all products in turn: from before the write until the content
// is restored.
#include <map>

#include "base/FileObserver.h"
#include "products/BareCopy.h"
#include "products/BareRsync.h"
#include "products/Peers.h"
#include "products/Sentrel.h"
#include "rows/Row.h"

namespace Bench {
namespace {

constexpr milliseconds kTimeout{10000};

struct Size {
    const char* row;
    const char* folder;
    std::size_t bytes;
    int files;  ///< few large ones to save space; one per run for 4 KiB, so that no alarm is merged
};

constexpr Size kSizes[] = {{"restore_4k", "small", 4096, 50},
                           {"restore_1m", "medium", 1 << 20, 10},
                           {"restore_10m", "large", 10 << 20, 5}};

Products Candidates(const Machine& machine, bool brief) {
    Products products;
    products.push_back(std::make_unique<BareRsync>(machine));
    if (!brief) products.push_back(std::make_unique<ForkedRsync>(machine));
    products.push_back(std::make_unique<BareCopy>(machine));
    products.push_back(std::make_unique<Sentrel>(machine, true));
    if (Sentrel::CanDisableFastPaths(machine) && !brief) {
        products.push_back(std::make_unique<Sentrel>(machine, false));
    }
    products.push_back(std::make_unique<InotifywaitLoop>(machine));
    if (!brief) products.push_back(std::make_unique<Lsyncd>(machine, Lsyncd::Way::kFile));
    products.push_back(std::make_unique<Lsyncd>(machine, Lsyncd::Way::kBatch));
    products.push_back(std::make_unique<Watchman>(machine));
    return products;
}

bool FillSite(const std::string& live) {
    if (!MakeTree(live, {20, 10, 4096})) return false;
    for (const Size& size : kSizes) {
        const std::string folder = live + "/" + size.folder;
        if (::mkdir(folder.c_str(), 0755) != 0) return false;
        for (int i = 0; i < size.files; ++i) {
            const std::string name = folder + "/page" + std::to_string(i);
            if (!MakeFile(name, size.bytes, static_cast<unsigned>(i))) return false;
        }
    }
    return true;
}

void MeasureOne(Plan& plan, TestBed& bed, const Size& size, int run) {
    const std::string path = std::string(size.folder) + "/page" + std::to_string(run % size.files);
    Product& product = bed.UnderTest();
    for (const FileState& file : bed.Files()) {
        if (file.path != path) continue;
        const FileObserver observer(bed.LivePath(file));
        const auto tampered = Tamper(bed.LivePath(file));
        const auto start = product.StartRestore(path).value_or(tampered);
        const auto back = observer.AwaitRestore(file, kTimeout);
        product.Settle();
        if (back && bed.Differing({file}) == 0) {
            plan.results.Add(size.row, product.Name(), MsBetween(start, *back));
        } else {
            plan.results.Note(size.row, product.Name(), "some did not come back");
        }
        if (auto* bare = dynamic_cast<BareRsync*>(&product)) {
            plan.results.Add(std::string(size.row) + "_exit", product.Name(), bare->ExitMs());
        }
    }
}

}  // namespace

void MeasureLatency(Plan& plan) {
    TestBeds beds;
    for (auto& product : Installed(plan, kSizes[0].row, Candidates(plan.machine, plan.brief))) {
        auto bed = std::make_unique<TestBed>(plan.machine, std::move(product));
        if (!FillSite(bed->Paths().live) ||
            !bed->ScanAndCopy(bed->CopyRoot() == bed->Paths().good)) {
            plan.results.Note(kSizes[0].row, bed->UnderTest().Name(), "no room for its tree");
        } else if (bed->Start(plan, kSizes[0].row, {})) {
            beds.push_back(std::move(bed));
        }
    }
    for (const Size& size : kSizes) {
        plan.Print(std::string(size.row) + ", " + std::to_string(beds.size()) + " guards in turn");
        for (int run = 0; plan.ShouldRun(run, plan.Runs(50, 15)); ++run) {
            for (auto& bed : beds) MeasureOne(plan, *bed, size, run);
        }
    }
}

}  // namespace Bench
