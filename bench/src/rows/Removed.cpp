// rm -rf of a subtree with 10,000 files, concurrent with the product: from the end of rm until all
// files are restored.
#include "products/BareRsync.h"
#include "products/Peers.h"
#include "products/Sentrel.h"
#include "rows/Row.h"

namespace Bench {
namespace {

constexpr milliseconds kTimeout{60000};
constexpr microseconds kPollInterval{5000};
constexpr microseconds kRecheckDelay{1000000};

struct Form {
    const char* row;
    TreeShape shape;
};

constexpr Form kForms[] = {{"removed_nested", {100, 100, 1024}},
                           {"removed_flat", {1, 10000, 1024}}};

Products Candidates(const Machine& machine, bool brief) {
    Products products;
    products.push_back(std::make_unique<BareRsync>(machine));
    products.push_back(std::make_unique<Sentrel>(machine, true));
    if (!brief) products.push_back(std::make_unique<InotifywaitLoop>(machine));
    products.push_back(std::make_unique<Lsyncd>(machine, Lsyncd::Way::kBatch));
    products.push_back(std::make_unique<Watchman>(machine));
    return products;
}

/// False when files are missing: more runs would only time out.
bool MeasureOne(Plan& plan, TestBed& bed, const Form& form) {
    Product& product = bed.UnderTest();
    const auto begin = Clock::now();
    const auto ended =
        Run({{"/bin/rm", "-rf", bed.Paths().live + "/shop"}, {}, "", "", ""}, kTimeout);
    if (!ended) plan.results.Note(form.row, product.Name(), "a run's rm did not end within 60 s");
    const auto gone = Clock::now();
    const auto start = product.StartRestore("shop/").value_or(gone);
    Outstanding outstanding(bed.Paths().live, bed.Files());
    std::size_t left = outstanding.Wait(kTimeout, kPollInterval);
    const auto end = Clock::now();
    product.Settle();
    // Checks again: a product that still restores may remove some.
    Pause(kRecheckDelay);
    left += bed.Differing(bed.Files());
    plan.results.Add(std::string(form.row) + "_rm", product.Name(), MsBetween(begin, gone));
    if (left == 0) {
        plan.results.Add(form.row, product.Name(), MsBetween(start, end));
        return true;
    }
    plan.results.Note(form.row, product.Name(),
                      std::to_string(left) + " of 10,000 left after " +
                          std::to_string(kTimeout.count() / 1000) + " s");
    return false;
}

}  // namespace

void MeasureRemoved(Plan& plan) {
    for (const Form& form : kForms) {
        TestBeds beds;
        for (auto& product : Installed(plan, form.row, Candidates(plan.machine, plan.brief))) {
            auto bed = std::make_unique<TestBed>(plan.machine, std::move(product));
            if (MakeTree(bed->Paths().live + "/shop", form.shape) &&
                MakeTree(bed->Paths().live + "/rest", {10, 10, 1024}) &&
                bed->ScanAndCopy(bed->CopyRoot() == bed->Paths().good) &&
                bed->Start(plan, form.row, {})) {
                beds.push_back(std::move(bed));
            }
        }
        for (int run = 0; plan.ShouldRun(run, plan.Runs(5, 2)); ++run) {
            for (auto& bed : beds) {
                if (!bed) continue;
                plan.Print(std::string(form.row) + ": " + bed->UnderTest().Name());
                if (!MeasureOne(plan, *bed, form)) bed.reset();
            }
        }
    }
}

}  // namespace Bench
