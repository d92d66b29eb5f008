#pragma once

#include <memory>
#include <string>
#include <vector>

#include "base/Tree.h"
#include "guards/Guard.h"
#include "report/Results.h"

namespace Bench {

/// What a row needs to run.
struct Plan {
    Machine machine;
    bool brief = false;  ///< the short form: fewer runs, and rows that end when their time is up
    Clock::time_point until = Clock::time_point::max();  ///< of the short form
    Results results;

    int Runs(int full, int in_brief) const { return brief ? in_brief : full; }

    /// Whether run number `run` of `runs` is to be made: the first always, others only in time.
    bool Goes(int run, int runs) const { return run < runs && (run == 0 || Clock::now() < until); }

    /// How long to wait for what should take less than `most`: in the short form never so long
    /// that it would not end within its time.
    milliseconds Patience(milliseconds most) const;

    /// One line on the terminal, so that one sees where it is.
    void Say(const std::string& text) const;
};

/// Measures and writes to plan.results. Throws Stopped only.
using RowFunction = void (*)(Plan& plan);

struct RowEntry {
    const char* name;  ///< for --only
    const char* what;
    int brief_seconds;  ///< what its short form takes on two cores, about
    RowFunction run;
};

/// In the order in which they run.
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
void MeasureOverflow(Plan& plan);
void MeasureBackup(Plan& plan);

/// A guard with a site of its own below the work folder; both go with the object.
class Post {
  public:
    Post(const Machine& machine, std::unique_ptr<Guard> guard);
    ~Post();
    Post(const Post&) = delete;
    Post& operator=(const Post&) = delete;

    /// The live tree as it should be. To be called once it is made; makes the pristine copy as
    /// well unless the guard makes its own.
    bool Survey(bool copy);

    /// As Guard::Start; a failure is noted in the row, and means that this guard is left out.
    bool Start(Plan& plan, const std::string& row, const GuardSettings& settings);

    Guard& Watch() { return *guard_; }
    const Site& Place() const { return site_; }
    const std::vector<FileState>& Files() const { return files_; }
    std::string Good() const { return guard_->GoodRoot(site_); }
    std::string Live(const FileState& file) const { return site_.live + "/" + file.path; }

    /// How many of them are not as in the pristine copy, byte for byte.
    std::size_t Differing(const std::vector<FileState>& files) const;

  private:
    std::unique_ptr<Guard> guard_;
    Site site_;
    std::vector<FileState> files_;
};

using Guards = std::vector<std::unique_ptr<Guard>>;
using Posts = std::vector<std::unique_ptr<Post>>;

/// Those that restore and report or restore alone; what is not installed is noted in `row`.
Guards Installed(Plan& plan, const std::string& row, Guards guards);

}  // namespace Bench
