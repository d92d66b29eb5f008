// The list of rows and what they share. A test bed owns its product and its folder.
#include "rows/Row.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>

namespace Bench {

namespace fs = std::filesystem;

namespace {

constexpr milliseconds kMinTimeout{5000};

}  // namespace

milliseconds Plan::Timeout(milliseconds most) const {
    if (deadline == Clock::time_point::max()) return most;
    const auto left = std::chrono::duration_cast<milliseconds>(deadline - Clock::now());
    return std::max(kMinTimeout, std::min(most, left));
}

void Plan::Print(const std::string& text) const {
    std::printf("    %s\n", text.c_str());
    std::fflush(stdout);
}

const std::vector<RowEntry>& AllRows() {
    static const std::vector<RowEntry> kRows = {
        {"latency", "one file modified: 4 KiB, 1 MiB, 10 MiB", 25, MeasureLatency},
        {"names", "one file modified, by what is in its name", 5, MeasureNames},
        {"burst", "1,000 files modified at once", 30, MeasureBurst},
        {"storm", "30,000 files modified at once", 40, MeasureStorm},
        {"hostile", "one file modified under hostile load", 30, MeasureHostile},
        {"added", "10,000 files added at once", 15, MeasureAdded},
        {"removed", "rm -rf of a subtree with 10,000 files", 60, MeasureRemoved},
        {"events", "events of ignored and of unchanged files", 50, MeasureEvents},
        {"excluded", "a writer in excluded directories", 10, MeasureExcluded},
        {"overflow", "more events than the kernel's queue holds", 50, MeasureOverflow},
        {"scale", "set-up, memory, latency and idle load by size of the tree", 90, MeasureScale},
        {"verify", "200,000 files compared with their approved state", 40, MeasureVerify},
        {"unseen", "changes of which the kernel tells nothing", 65, MeasureUnseen},
        {"backup", "first backup of 200,000 files", 60, MeasureBackup},
    };
    return kRows;
}

TestBed::TestBed(const Machine& machine, std::unique_ptr<Product> product)
    : product_(std::move(product)) {
    static int count = 0;
    const std::string folder = machine.work + "/bed" + std::to_string(count++);
    site_ = {folder + "/live", folder + "/good", folder + "/scratch"};
    fs::create_directories(site_.scratch);
}

TestBed::~TestBed() {
    product_->Stop();
    product_.reset();
    std::error_code gone;
    fs::remove_all(fs::path(site_.live).parent_path(), gone);
}

bool TestBed::ScanAndCopy(bool copy) {
    files_ = ScanTree(site_.live);
    return !files_.empty() && (!copy || CopyTree(site_.live, CopyRoot()));
}

bool TestBed::Start(Plan& plan, const std::string& row, const ProductSettings& settings) {
    if (product_->Start(site_, settings)) return true;
    plan.results.Note(row, product_->Name(), "left out, it did not start: " + product_->Problem());
    plan.Print(product_->Name() + " did not start: " + product_->Problem());
    return false;
}

std::size_t TestBed::Differing(const std::vector<FileState>& files) const {
    std::size_t count = 0;
    for (const FileState& file : files) {
        count += SameContent(LivePath(file), CopyRoot() + "/" + file.path) ? 0U : 1U;
    }
    return count;
}

Products Installed(Plan& plan, const std::string& row, Products products) {
    Products there;
    for (auto& product : products) {
        const std::string missing = product->Missing();
        if (missing.empty()) {
            there.push_back(std::move(product));
        } else {
            plan.results.Note(row, product->Name(), "skipped: " + missing);
        }
    }
    return there;
}

}  // namespace Bench
