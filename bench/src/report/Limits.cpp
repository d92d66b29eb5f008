// The performance limits and their evaluation. Measures nothing.
#include "report/Limits.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <limits>
#include <optional>

#include "base/Stats.h"

namespace Bench {
namespace {

constexpr char kOurs[] = "Sentrel";
constexpr char kOursPlain[] = "Sentrel, plain rsync";
constexpr char kBare[] = "bare rsync";
constexpr char kRaw[] = "raw walk and watch";
/// Replaced by the best peer of the row.
constexpr char kBestPeer[] = "the best peer";

enum class Stat { kMedian, kP99, kWorst, kLeast };

struct Side {
    const char* row;
    const char* product;
    Stat stat = Stat::kMedian;
};

struct Limit {
    const char* what;
    Side ours;
    double factor;  ///< of `against`; the limit itself when `against` names no row
    Side against;
    bool at_least = false;
    double when_busy = 0;  ///< multiplies `factor` in a busy run; 0: not evaluated
};

const std::vector<Limit>& Limits() {
    static const std::vector<Limit> kLimits = {
        {"4 KiB back, median, against bare rsync",
         {"restore_4k", kOurs},
         1.2,
         {"restore_4k", kBare}},
        {"4 KiB back, 99th percentile, against bare rsync's median",
         {"restore_4k", kOurs, Stat::kP99},
         2,
         {"restore_4k", kBare}},
        {"4 KiB back, median", {"restore_4k", kOurs}, 1, {}},
        {"4 KiB back, 99th percentile", {"restore_4k", kOurs, Stat::kP99}, 3, {}},
        {"4 KiB back, against the best peer",
         {"restore_4k", kOurs},
         1.0 / 5,
         {"restore_4k", kBestPeer}},
        {"names with blanks: 4 KiB back, against plain names",
         {"names", "Sentrel, names with blanks"},
         1.2,
         {"names", "Sentrel, plain names"}},
        {"1 MiB back, against bare rsync", {"restore_1m", kOurs}, 1.2, {"restore_1m", kBare}},
        {"1 MiB back, against the best peer", {"restore_1m", kOurs}, 1, {"restore_1m", kBestPeer}},
        {"10 MiB back, against bare rsync", {"restore_10m", kOurs}, 1.2, {"restore_10m", kBare}},
        {"10 MiB back, against the best peer",
         {"restore_10m", kOurs},
         1,
         {"restore_10m", kBestPeer}},
        {"10 MiB back, against cp", {"restore_10m", kOurs}, 1.2, {"restore_10m", "cp -a"}},
        {"1,000 files back with plain rsync, against its own sequence",
         {"burst_1000", kOursPlain},
         1.1,
         {"burst_1000", kBare}},
        {"1,000 files back, against plain rsync in sequence",
         {"burst_1000", kOurs},
         1.0 / 6,
         {"burst_1000", kBare}},
        {"1,000 files back, against lsyncd, batching",
         {"burst_1000", kOurs},
         1,
         {"burst_1000", "lsyncd, batching"},
         false,
         2},
        {"1,000 files: all reported with their difference",
         {"burst_1000_told", kOurs},
         3000,
         {},
         false,
         2},
        {"1,000 files: reported with their difference",
         {"burst_1000_reported", kOurs, Stat::kLeast},
         1000,
         {},
         true,
         1},
        {"30,000 files: left tampered", {"storm_30000_left", kOurs, Stat::kWorst}, 0, {}, false, 1},
        {"30,000 files back", {"storm_30000", kOurs}, 10000, {}, false, 2},
        {"30,000 files: reported",
         {"storm_30000_reported", kOurs, Stat::kLeast},
         30000,
         {},
         true,
         1},
        {"30,000 files: time a file, against plain rsync in sequence",
         {"storm_30000_each", kOurs},
         1.0 / 6,
         {"burst_1000_each", kBare}},
        {"ten sparse files of 6 GiB changed: one page back, median",
         {"hostile_sparse", kOurs},
         50,
         {}},
        {"ten sparse files of 6 GiB changed: one page back, at worst",
         {"hostile_sparse", kOurs, Stat::kWorst},
         1000,
         {}},
        {"two loops over 2,000 files: one page back, median", {"hostile_loops", kOurs}, 50, {}},
        {"two loops over 2,000 files: one page back, at worst",
         {"hostile_loops", kOurs, Stat::kWorst},
         1000,
         {}},
        {"a full /tmp: one page back, median", {"hostile_tmp", kOurs}, 50, {}},
        {"a full /tmp: one page back, at worst", {"hostile_tmp", kOurs, Stat::kWorst}, 1000, {}},
        {"10,000 files added: all removed and reported", {"added_10000", kOurs}, 2000, {}},
        {"rm -rf of 100 directories with 100 files, back in full",
         {"removed_nested", kOurs},
         3,
         {"removed_nested", kBare}},
        {"rm -rf of one directory with 10,000 files, back in full",
         {"removed_flat", kOurs},
         3,
         {"removed_flat", kBare}},
        {"ready on 10,000 directories, against one thread",
         {"ready_10000", kOurs},
         1.5,
         {"ready_10000", kRaw}},
        {"ready on 100,000 directories, against one thread",
         {"ready_100000", kOurs},
         1.5,
         {"ready_100000", kRaw}},
        {"ready on 100,000 directories, against the best peer",
         {"ready_100000", kOurs},
         1,
         {"ready_100000", kBestPeer}},
        {"memory per watched directory", {"memory_100000", kOurs}, 600, {}},
        {"ignored events: overflows",
         {"events_ignored_overflows", kOurs, Stat::kWorst},
         0,
         {},
         false,
         1},
        {"ignored events: the writer's rate, against inotifywait",
         {"events_ignored", kOurs},
         1,
         {"events_ignored", "inotifywait"},
         true,
         1},
        {"a writer in excluded directories: its rate, against an unwatched one",
         {"excluded", kOurs},
         0.98,
         {"excluded", "nobody"},
         true,
         1},
        {"unchanged files: overflows",
         {"events_unchanged_overflows", kOurs, Stat::kWorst},
         0,
         {},
         false,
         1},
        {"unchanged files: the writer's rate, against inotifywait",
         {"events_unchanged", kOurs},
         1,
         {"events_unchanged", "inotifywait"},
         true,
         1},
        {"ignored events: drained when backlogged", {"drain_ignored", kOurs}, 250000, {}, true},
        {"overflow: left tampered for good", {"overflow_left", kOurs, Stat::kWorst}, 0, {}},
        {"first backup of 200,000 files, against bare rsync",
         {"backup_200000", kOurs},
         1.05,
         {"backup_200000", kBare}},
        {"the list of what is approved, share of the first backup",
         {"backup_manifest", kOurs},
         0.1,
         {"backup_200000", kOurs}},
        {"200,000 files verified, against rsync -nc",
         {"verify_200000", kOurs},
         1,
         {"verify_200000", "rsync -nc"}},
        {"a write through mmap back, after munmap",
         {"unseen", "mmap, unmapped", Stat::kWorst},
         1000,
         {}},
        {"a write through a lasting mapping back",
         {"unseen", "mmap, still mapped", Stat::kWorst},
         60000,
         {}},
        {"a write through a hard link elsewhere back",
         {"unseen", "hard link elsewhere", Stat::kWorst},
         60000,
         {}},
        {"a name that ends in a dot gone",
         {"unseen", "a name that ends in a dot", Stat::kWorst},
         60000,
         {}},
        {"an extended attribute gone",
         {"unseen", "an extended attribute", Stat::kWorst},
         60000,
         {}},
        {"at rest, 100,000 directories watched", {"rest_100000", kOurs}, 0.2, {}},
    };
    return kLimits;
}

bool IsPeer(const std::string& product) {
    return product.find("inotifywait") == 0 || product.find("lsyncd") == 0 ||
           product.find("watchman") == 0;
}

std::optional<double> Take(const std::vector<double>& samples, Stat stat) {
    if (samples.empty()) return std::nullopt;
    switch (stat) {
        case Stat::kMedian:
            return Median(samples);
        case Stat::kP99:
            return Percentile(samples, 0.99);
        case Stat::kWorst:
            return *std::max_element(samples.begin(), samples.end());
        case Stat::kLeast:
            break;
    }
    return *std::min_element(samples.begin(), samples.end());
}

std::optional<double> Value(const Results& results, const Side& side) {
    if (side.product != std::string(kBestPeer)) {
        return Take(results.Find(side.row, side.product).samples, side.stat);
    }
    std::optional<double> best;
    for (const Line& line : results.Row(side.row)) {
        const auto value = Take(line.samples, side.stat);
        if (IsPeer(line.product) && value && (!best || *value < *best)) best = value;
    }
    return best;
}

std::string UnitOf(const char* row) {
    for (const RowTitle& title : RowTitles()) {
        if (title.row == std::string(row)) return title.unit;
    }
    return "";
}

Verdict Compare(const Limit& limit, double ours, double against, bool busy) {
    const std::string unit = UnitOf(limit.ours.row);
    const double bound = limit.factor * against * (busy ? limit.when_busy : 1);
    Verdict verdict;
    verdict.what = limit.what;
    verdict.ours = Figure(ours, unit);
    verdict.limit = (limit.at_least ? "at least " : "at most ") + Figure(bound, unit);
    verdict.met = limit.at_least ? ours >= bound : ours <= bound;
    const double over = limit.at_least ? bound : ours;
    const double under = limit.at_least ? ours : bound;
    verdict.share =
        under > 0 ? over / under : (over > 0 ? std::numeric_limits<double>::infinity() : 1);
    return verdict;
}

}  // namespace

std::vector<Verdict> Evaluate(const Results& results, bool busy) {
    std::vector<Verdict> verdicts;
    for (const Limit& limit : Limits()) {
        if (busy && limit.when_busy == 0) continue;
        const auto ours = Value(results, limit.ours);
        const auto against =
            limit.against.row == nullptr ? std::optional<double>(1) : Value(results, limit.against);
        if (ours && against) verdicts.push_back(Compare(limit, *ours, *against, busy));
    }
    return verdicts;
}

std::string Figure(double value, const std::string& unit) {
    char text[64];
    const double size = std::fabs(value);
    const int digits = size == std::floor(size) || size >= 1000 ? 0
                       : size >= 100                            ? 0
                       : size >= 10                             ? 1
                       : size >= 0.1                            ? 2
                                                                : 3;
    std::snprintf(text, sizeof text, "%.*f", digits, value);
    std::string figure = text;
    for (int at = static_cast<int>(figure.find('.') == std::string::npos ? figure.size()
                                                                         : figure.find('.')) -
                  3;
         at > 0; at -= 3) {
        figure.insert(static_cast<std::size_t>(at), ",");
    }
    return unit.empty() ? figure : figure + " " + unit;
}

}  // namespace Bench
