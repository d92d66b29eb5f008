#pragma once

#include <memory>
#include <string>
#include <vector>

#include "base/Tree.h"
#include "products/Product.h"
#include "report/Results.h"

namespace Bench {

/// The settings and results of a run.
struct Plan {
    Machine machine;
    bool brief = false;                                     ///< fewer runs, within a time budget
    Clock::time_point deadline = Clock::time_point::max();  ///< of the short form
    Results results;

    int Runs(int full, int in_brief) const { return brief ? in_brief : full; }

    /// True for the first run, and for others before the deadline.
    bool ShouldRun(int run, int runs) const {
        return run < runs && (run == 0 || Clock::now() < deadline);
    }

    /// The time-out of a wait: `most`, or the time until the deadline, but at least 5 s.
    milliseconds Timeout(milliseconds most) const;

    /// Prints a progress line.
    void Print(const std::string& text) const;
};

/// Measures a row and adds to plan.results. Throws only Interrupted.
using RowFunction = void (*)(Plan& plan);

struct RowEntry {
    const char* name;  ///< for --only
    const char* what;
    int brief_seconds;  ///< approximate time of the short form on two cores
    RowFunction run;
};

/// In the order of their execution.
const std::vector<RowEntry>& AllRows();

void MeasureLatency(Plan& plan);
void MeasureBurst(Plan& plan);
void MeasureStorm(Plan& plan);
void MeasureHostile(Plan& plan);
void MeasureNames(Plan& plan);
void MeasureAdded(Plan& plan);
void MeasureRemoved(Plan& plan);
void MeasureScale(Plan& plan);
void MeasureEvents(Plan& plan);
void MeasureExcluded(Plan& plan);
void MeasureOverflow(Plan& plan);
void MeasureBackup(Plan& plan);
void MeasureVerify(Plan& plan);
void MeasureUnseen(Plan& plan);

/// A product with a site of its own in the work folder. The destructor ends and removes both.
class TestBed {
  public:
    TestBed(const Machine& machine, std::unique_ptr<Product> product);
    ~TestBed();
    TestBed(const TestBed&) = delete;
    TestBed& operator=(const TestBed&) = delete;

    /// Records the state of the live tree, and with `copy` makes the backup copy. Call it after the
    /// tree is made.
    bool ScanAndCopy(bool copy);

    /// As Product::Start; notes a failure in the row.
    bool Start(Plan& plan, const std::string& row, const ProductSettings& settings);

    Product& UnderTest() { return *product_; }
    const Site& Paths() const { return site_; }
    const std::vector<FileState>& Files() const { return files_; }
    std::string CopyRoot() const { return product_->CopyRoot(site_); }
    std::string LivePath(const FileState& file) const { return site_.live + "/" + file.path; }

    /// The number of files whose content differs from the backup copy.
    std::size_t Differing(const std::vector<FileState>& files) const;

  private:
    std::unique_ptr<Product> product_;
    Site site_;
    std::vector<FileState> files_;
};

using Products = std::vector<std::unique_ptr<Product>>;
using TestBeds = std::vector<std::unique_ptr<TestBed>>;

/// The installed ones of `products`; notes the others in `row`.
Products Installed(Plan& plan, const std::string& row, Products products);

}  // namespace Bench
