// One file modified, one at a time: files with plain names and files with blanks in theirs, in
// turn.
#include "base/FileObserver.h"
#include "guards/AgentGuard.h"
#include "rows/Row.h"

namespace Bench {
namespace {

constexpr char kRow[] = "names";
constexpr char kPlain[] = "Sentrel, plain names";
constexpr char kBlanks[] = "Sentrel, names with blanks";
constexpr int kFiles = 50;  ///< of each kind; one a run, so that no alarm is merged
constexpr std::size_t kBytes = 4096;
constexpr milliseconds kPatience{10000};

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

/// False when it did not come back: more runs would only wait again.
bool MeasureOne(Plan& plan, Post& post, const std::string& name, const char* line) {
    for (const FileState& file : post.Files()) {
        if (file.path != name) continue;
        const FileObserver observer(post.Live(file));
        const auto start = Tamper(post.Live(file));
        const auto back = observer.AwaitBack(file, kPatience);
        post.Watch().Settle();
        if (back && post.Differing({file}) == 0) {
            plan.results.Add(kRow, line, MsBetween(start, *back));
            return true;
        }
    }
    plan.results.Note(kRow, line, name + " did not come back");
    return false;
}

}  // namespace

void MeasureNames(Plan& plan) {
    Post post(plan.machine, std::make_unique<AgentGuard>(plan.machine, true));
    if (!FillSite(post.Place().live) || !post.Survey(false) || !post.Start(plan, kRow, {})) return;
    const int runs = plan.Runs(kFiles, 20);
    bool plain = true;
    bool blanks = true;
    for (int run = 0; plan.Goes(run, runs); ++run) {
        plain = plain && MeasureOne(plan, post, NameOf(true, run), kPlain);
        blanks = blanks && MeasureOne(plan, post, NameOf(false, run), kBlanks);
    }
}

}  // namespace Bench
