// Set-up, memory and the time of one restore by tree size, and the idle load for the largest tree.
// All products use one tree in turn, because of the kernel's limit of watches.
#include <filesystem>

#include "base/FileObserver.h"
#include "products/BareRsync.h"
#include "products/Peers.h"
#include "products/RawWatch.h"
#include "products/Sentrel.h"
#include "rows/Row.h"

namespace Bench {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t kSmallest = 10;  ///< the base of the memory figures
constexpr std::size_t kLargest = 100000;
constexpr std::size_t kSamples = 20;
constexpr milliseconds kTimeout{10000};
constexpr microseconds kIdleBeforeRest{3000000};
constexpr char kTargets[] = "targets";

struct Candidate {
    std::unique_ptr<Product> product;
    bool restores;
};

std::vector<Candidate> Candidates(const Machine& machine) {
    std::vector<Candidate> all;
    all.push_back({std::make_unique<BareRsync>(machine), true});
    all.push_back({std::make_unique<RawWatch>(machine, 1), false});
    all.push_back({std::make_unique<RawWatch>(machine, 2), false});
    all.push_back({std::make_unique<Sentrel>(machine, true), true});
    all.push_back({std::make_unique<Inotifywait>(machine), false});
    all.push_back({std::make_unique<InotifywaitLoop>(machine), true});
    all.push_back({std::make_unique<Lsyncd>(machine, Lsyncd::Way::kBatch), true});
    all.push_back({std::make_unique<Watchman>(machine), true});
    return all;
}

/// A tree with some files to change. Its backup copy has copies of these; all else are links to the
/// tree.
struct SharedTree {
    std::string live;
    std::vector<FileState> targets;

    bool Make(const std::string& root, std::size_t directories) {
        live = root + "/live";
        if (!MakeTree(live, {directories, 10, 0})) return false;
        ::mkdir((live + "/" + kTargets).c_str(), 0755);
        for (std::size_t i = 0; i < kSamples; ++i) {
            const std::string name = std::string(kTargets) + "/page" + std::to_string(i);
            if (!MakeFile(live + "/" + name, 4096, static_cast<unsigned>(i))) return false;
        }
        for (const FileState& file : ScanTree(live + "/" + kTargets)) {
            targets.push_back({std::string(kTargets) + "/" + file.path, file.size, file.mtime});
        }
        return true;
    }

    bool MakeCopy(const std::string& good) const {
        std::error_code error;
        fs::create_directories(good, error);
        for (const auto& entry : fs::directory_iterator(live)) {
            if (entry.path().filename() == kTargets) continue;
            fs::create_directory_symlink(entry.path(),
                                         good + "/" + entry.path().filename().string(), error);
        }
        return !error && CopyTree(live + "/" + kTargets, good + "/" + kTargets);
    }
};

class ScaleRow {
  public:
    ScaleRow(Plan& plan, std::size_t directories)
        : plan_(plan),
          directories_(directories),
          suffix_("_" + std::to_string(directories)),
          folder_(plan.machine.work + "/scale") {}

    ~ScaleRow() { RemoveTree(folder_); }
    ScaleRow(const ScaleRow&) = delete;
    ScaleRow& operator=(const ScaleRow&) = delete;

    void Run(std::map<std::string, std::size_t>& smallest) {
        plan_.Print("making " + std::to_string(directories_) + " directories");
        if (!tree_.Make(folder_, directories_)) return;
        WarmCaches();
        const bool counts = directories_ > kSmallest;
        const int runs = counts ? plan_.Runs(5, directories_ == kLargest ? 1 : 3) : 1;
        for (Candidate& one : Candidates(plan_.machine)) {
            const std::string name = one.product->Name();
            if (!one.product->Missing().empty()) {
                plan_.results.Note("ready" + suffix_, name, "skipped: " + one.product->Missing());
                continue;
            }
            plan_.Print(name);
            for (int run = 0; plan_.ShouldRun(run, runs); ++run) {
                if (!MeasureOne(*one.product, one.restores, run + 1 == runs, smallest)) break;
            }
        }
    }

  private:
    /// Fills the kernel's caches for the first product, as the products before do for the others.
    void WarmCaches() const {
        Bench::Run({{"/usr/bin/find", tree_.live, "-size", "+1G"}, {}, "", "", ""});
    }

    bool MeasureOne(Product& product, bool restores, bool last,
                    std::map<std::string, std::size_t>& smallest) {
        const Site site{tree_.live, folder_ + "/good", folder_ + "/scratch"};
        RemoveTree(site.scratch);
        fs::create_directories(site.scratch);
        if (!fs::exists(product.CopyRoot(site)) && !tree_.MakeCopy(product.CopyRoot(site)))
            return false;
        ProductSettings settings;
        settings.makes_copy = false;
        if (!product.Start(site, settings)) {
            plan_.results.Note("ready" + suffix_, product.Name(), product.Problem());
            return false;
        }
        if (directories_ == kSmallest) {
            product.Settle();
            smallest[product.Name()] = product.MemoryBytes();
        } else {
            if (product.Runs())
                plan_.results.Add("ready" + suffix_, product.Name(), product.ReadyMs());
            if (last) MeasureRunning(product, restores, smallest[product.Name()]);
        }
        product.Stop();
        return true;
    }

    void MeasureRunning(Product& product, bool restores, std::size_t smallest) {
        product.Settle();
        if (product.Runs()) {
            const double bytes =
                static_cast<double>(product.MemoryBytes()) - static_cast<double>(smallest);
            plan_.results.Add("memory" + suffix_, product.Name(),
                              bytes / static_cast<double>(directories_ - kSmallest));
        }
        const bool ours = dynamic_cast<Sentrel*>(&product) != nullptr;
        if (directories_ == kLargest && product.Runs() && (ours || !plan_.brief))
            MeasureRest(product);
        if (restores) MeasureLatency(product);
    }

    void MeasureRest(Product& product) {
        const microseconds time = std::chrono::seconds(plan_.Runs(30, 10));
        Pause(kIdleBeforeRest);
        const auto cpu = product.CpuTime();
        const auto start = Clock::now();
        Pause(time);
        const double used =
            std::chrono::duration<double, std::milli>(product.CpuTime() - cpu).count();
        plan_.results.Add("rest" + suffix_, product.Name(), 100 * used / MsSince(start));
    }

    void MeasureLatency(Product& product) {
        const std::string row = "latency" + suffix_;
        for (const FileState& file : tree_.targets) {
            const std::string path = tree_.live + "/" + file.path;
            const FileObserver observer(path);
            const auto tampered = Tamper(path);
            const auto start = product.StartRestore(file.path).value_or(tampered);
            const auto back = observer.AwaitRestore(file, kTimeout);
            product.Settle();
            if (back) plan_.results.Add(row, product.Name(), MsBetween(start, *back));
            if (!back) {
                plan_.results.Note(row, product.Name(), "one did not come back");
                return;
            }
        }
    }

    Plan& plan_;
    const std::size_t directories_;
    const std::string suffix_;
    const std::string folder_;
    SharedTree tree_;
};

}  // namespace

void MeasureScale(Plan& plan) {
    std::map<std::string, std::size_t> smallest;
    for (const std::size_t directories :
         {kSmallest, std::size_t{1000}, std::size_t{10000}, kLargest}) {
        ScaleRow(plan, directories).Run(smallest);
    }
}

}  // namespace Bench
