// The list of rows and what they share. A post owns its guard and its folder.
#include "rows/Row.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>

namespace Bench {

namespace fs = std::filesystem;

namespace {

constexpr milliseconds kLeastPatience{5000};

}  // namespace

milliseconds Plan::Patience(milliseconds most) const {
    if (until == Clock::time_point::max()) return most;
    const auto left = std::chrono::duration_cast<milliseconds>(until - Clock::now());
    return std::max(kLeastPatience, std::min(most, left));
}

void Plan::Say(const std::string& text) const {
    std::printf("    %s\n", text.c_str());
    std::fflush(stdout);
}

const std::vector<RowEntry>& AllRows() {
    static const std::vector<RowEntry> kRows = {
        {"latency", "one file modified: 4 KiB, 1 MiB, 10 MiB", 25, MeasureLatency},
        {"names", "one file modified, by what is in its name", 5, MeasureNames},
        {"burst", "1,000 files modified at once", 30, MeasureBurst},
        {"storm", "30,000 files modified at once", 40, MeasureStorm},
        {"hostile", "one file modified while others do their worst", 30, MeasureHostile},
        {"added", "10,000 files added at once", 15, MeasureAdded},
        {"removed", "rm -rf of a subtree with 10,000 files", 60, MeasureRemoved},
        {"events", "events of ignored and of unchanged files", 50, MeasureEvents},
        {"overflow", "more events than the kernel keeps", 50, MeasureOverflow},
        {"scale", "set-up, memory, latency and rest by size of the tree", 90, MeasureScale},
        {"backup", "first backup of 200,000 files", 60, MeasureBackup},
    };
    return kRows;
}

Post::Post(const Machine& machine, std::unique_ptr<Guard> guard) : guard_(std::move(guard)) {
    static int count = 0;
    const std::string folder = machine.work + "/post" + std::to_string(count++);
    site_ = {folder + "/live", folder + "/good", folder + "/scratch"};
    fs::create_directories(site_.scratch);
}

Post::~Post() {
    guard_->Stop();
    guard_.reset();
    std::error_code gone;
    fs::remove_all(fs::path(site_.live).parent_path(), gone);
}

bool Post::Survey(bool copy) {
    files_ = Bench::Survey(site_.live);
    return !files_.empty() && (!copy || CopyTree(site_.live, Good()));
}

bool Post::Start(Plan& plan, const std::string& row, const GuardSettings& settings) {
    if (guard_->Start(site_, settings)) return true;
    plan.results.Note(row, guard_->Name(), "left out, it did not start: " + guard_->Problem());
    plan.Say(guard_->Name() + " did not start: " + guard_->Problem());
    return false;
}

std::size_t Post::Differing(const std::vector<FileState>& files) const {
    std::size_t count = 0;
    for (const FileState& file : files) {
        count += SameContent(Live(file), Good() + "/" + file.path) ? 0U : 1U;
    }
    return count;
}

Guards Installed(Plan& plan, const std::string& row, Guards guards) {
    Guards there;
    for (auto& guard : guards) {
        const std::string missing = guard->Missing();
        if (missing.empty()) {
            there.push_back(std::move(guard));
        } else {
            plan.results.Note(row, guard->Name(), "skipped: " + missing);
        }
    }
    return there;
}

}  // namespace Bench
