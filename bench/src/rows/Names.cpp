// One file modified at a time, with and without blanks in its name in turn.
#include "base/FileObserver.h"
#include "products/Sentrel.h"
#include "rows/Row.h"

namespace Bench {
namespace {

constexpr char kRow[] = "names";
constexpr char kPlain[] = "Sentrel, plain names";
constexpr char kBlanks[] = "Sentrel, names with blanks";
constexpr int kFiles = 50;  ///< of each kind; one per run, so that no alarm is merged
constexpr std::size_t kBytes = 4096;
constexpr milliseconds kTimeout{10000};

std::string NameOf(bool plain, int run) {
    return plain ? "page" + std::to_string(run) + ".html"
                 : "our page " + std::to_string(run) + " (new).html";
}

bool FillSite(const std::string& live) {
    if (!MakeTree(live, {20, 10, kBytes})) return false;
    for (int run = 0; run < kFiles; ++run) {
        for (const bool plain : {true, false}) {
            const std::string path = live + "/" + NameOf(plain, run);
            if (!MakeFile(path, kBytes, static_cast<unsigned>(run))) return false;
        }
    }
    return true;
}

/// False when it was not restored: more runs would only time out.
bool MeasureOne(Plan& plan, TestBed& bed, const std::string& name, const char* line) {
    for (const FileState& file : bed.Files()) {
        if (file.path != name) continue;
        const FileObserver observer(bed.LivePath(file));
        const auto start = Tamper(bed.LivePath(file));
        const auto back = observer.AwaitRestore(file, kTimeout);
        bed.UnderTest().Settle();
        if (back && bed.Differing({file}) == 0) {
            plan.results.Add(kRow, line, MsBetween(start, *back));
            return true;
        }
    }
    plan.results.Note(kRow, line, name + " did not come back");
    return false;
}

}  // namespace

void MeasureNames(Plan& plan) {
    TestBed bed(plan.machine, std::make_unique<Sentrel>(plan.machine, true));
    if (!FillSite(bed.Paths().live) || !bed.ScanAndCopy(false) || !bed.Start(plan, kRow, {}))
        return;
    const int runs = plan.Runs(kFiles, 20);
    bool plain = true;
    bool blanks = true;
    for (int run = 0; plan.ShouldRun(run, runs); ++run) {
        plain = plain && MeasureOne(plan, bed, NameOf(true, run), kPlain);
        blanks = blanks && MeasureOne(plan, bed, NameOf(false, run), kBlanks);
    }
}

}  // namespace Bench
