// Comparing 200,000 files with their approved state by content: `morvanectl verify --full` beside
// rsync's dry run and AIDE.
#include <unistd.h>

#include "products/Sentrel.h"
#include "rows/Row.h"

namespace Bench {
namespace {

constexpr char kRow[] = "verify_200000";
constexpr char kAide[] = "/usr/bin/aide";
constexpr TreeShape kShape{2000, 100, 1024};
constexpr milliseconds kTimeout{300000};
constexpr microseconds kStep{5000};

/// Runs `command` and notes its time; its exit code must be 0, as nothing differs.
void Measure(Plan& plan, const std::string& product, const Command& command) {
    const auto start = Clock::now();
    if (Run(command) == 0) {
        plan.results.Add(kRow, product, MsSince(start));
    } else {
        plan.results.Note(kRow, product, "it failed or found differences");
    }
}

Command RsyncDryRun(const Plan& plan, const TestBed& bed) {
    return {{kRsync, "-anc", "--delete", bed.Paths().live + "/", bed.CopyRoot() + "/"},
            PlainEnvironment(plan.machine),
            "",
            "",
            ""};
}

/// AIDE's own database of the site, with the same attributes as a manifest.
class Aide {
  public:
    Aide(const Plan& plan, const TestBed& bed)
        : environment_(PlainEnvironment(plan.machine)), file_(bed.Paths().scratch + "/aide.conf") {
        const std::string base = bed.Paths().scratch + "/aide.db";
        is_ready_ = MissingProgram(kAide).empty() &&
                    WriteText(file_, "database_in=file:" + base + "\ndatabase_out=file:" + base +
                                         "\ngzip_dbout=no\nreport_url=file:" + base + ".report\n" +
                                         bed.Paths().live + " p+u+g+s+m+sha256\n") &&
                    Run(Words("--init")) == 0;
    }

    bool IsReady() const { return is_ready_; }
    Command Check() const { return Words("--check"); }

  private:
    Command Words(const char* action) const {
        return {{kAide, "--config=" + file_, action}, environment_, "", "", ""};
    }

    const std::vector<std::string> environment_;
    const std::string file_;
    bool is_ready_ = false;
};

/// The site is copied and its state signed.
bool Approve(Plan& plan, TestBed& bed) {
    const auto& agent = dynamic_cast<const Sentrel&>(bed.UnderTest());
    ProductSettings settings;
    settings.deadline = kTimeout;
    return bed.Start(plan, kRow, settings) &&
           WaitUntil(kTimeout, kStep, [&] { return agent.HasManifest(); });
}

}  // namespace

void MeasureVerify(Plan& plan) {
    TestBed bed(plan.machine, std::make_unique<Sentrel>(plan.machine, true));
    plan.Print("making 200,000 files");
    if (!MakeTree(bed.Paths().live, kShape) || !Approve(plan, bed)) return;
    const auto& agent = dynamic_cast<const Sentrel&>(bed.UnderTest());
    std::unique_ptr<Aide> aide;
    if (!plan.brief) {
        aide = std::make_unique<Aide>(plan, bed);
        if (!aide->IsReady()) plan.results.Note(kRow, "AIDE", "skipped: it cannot be used here");
    }
    for (int run = 0; plan.ShouldRun(run, plan.Runs(5, 3)); ++run) {
        plan.Print("verify, run " + std::to_string(run + 1));
        Measure(plan, "Sentrel", agent.VerifyCommand());
        Measure(plan, "rsync -nc", RsyncDryRun(plan, bed));
        if (aide != nullptr && aide->IsReady()) Measure(plan, "AIDE", aide->Check());
    }
}

}  // namespace Bench
