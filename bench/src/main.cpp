// The driver of bench/run.sh: measures the requested rows, writes the results after each row, and
// makes tables of them.
#include <json/json.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <filesystem>

#include "products/BareRsync.h"
#include "products/RawWatch.h"
#include "report/Document.h"
#include "rows/Row.h"
#include "sdk/text/JsonUtils.h"

namespace {

constexpr int kStopped = 130;
constexpr int kBadArguments = 2;

/// The time budget of the short form. Its last row may exceed it, but not ten minutes.
constexpr double kBriefSeconds = 540;

struct Options {
    Bench::Machine machine;
    Bench::Form form;
    std::vector<std::string> only;
    std::string results;  ///< the JSON file
    std::string output;   ///< output folder of `report`
};

Json::Value Load(const std::string& file) {
    const std::string text = Bench::ReadFile(file);
    Json::Value document;
    SDK::JsonUtils::ParseJsonStr(text.data(), text.size(), document);
    return document;
}

bool Wanted(const Options& options, const std::string& row) {
    return options.only.empty() ||
           std::find(options.only.begin(), options.only.end(), row) != options.only.end();
}

/// The first requested row that does not exist; empty: all exist.
std::string UnknownRow(const Options& options) {
    const std::vector<Bench::RowEntry>& rows = Bench::AllRows();
    for (const std::string& name : options.only) {
        const auto is_named = [&](const Bench::RowEntry& row) { return row.name == name; };
        if (std::none_of(rows.begin(), rows.end(), is_named)) return name;
    }
    return {};
}

/// Omits the rows for which the short form has no time left. The estimate is the row's usual time
/// multiplied by the slowdown of the rows before it.
class TimeBudget {
  public:
    explicit TimeBudget(bool brief) : brief_(brief) {}

    Bench::Clock::time_point End() const {
        const auto time = std::chrono::duration<double>(kBriefSeconds);
        return brief_ ? start_ + std::chrono::duration_cast<Bench::Clock::duration>(time)
                      : Bench::Clock::time_point::max();
    }

    bool HasTimeFor(const Bench::RowEntry& row) {
        const double spent = Bench::MsSince(start_) / 1000;
        const double slowness = planned_ > 0 ? std::max(1.0, spent / planned_) : 1;
        if (brief_ && spent + slowness * row.brief_seconds > kBriefSeconds) return false;
        planned_ += row.brief_seconds;
        return true;
    }

  private:
    const bool brief_;
    const Bench::Clock::time_point start_ = Bench::Clock::now();
    double planned_ = 0;
};

void MeasureRow(const Bench::RowEntry& row, Bench::Plan& plan) {
    const auto start = Bench::Clock::now();
    std::printf("%s: %s\n", row.name, row.what);
    row.run(plan);
    plan.Print("took " + std::to_string(static_cast<int>(Bench::MsSince(start) / 1000)) + " s");
}

int Measure(const Options& options) {
    if (const std::string name = UnknownRow(options); !name.empty()) {
        std::fprintf(stderr, "error: no row %s; --rows names them\n", name.c_str());
        return kBadArguments;
    }
    Bench::PrepareWaits();
    const Json::Value machine = Bench::DescribeMachine(options.machine.work);
    Bench::Plan plan;
    plan.machine = options.machine;
    plan.brief = options.form.brief;
    TimeBudget time(plan.brief && options.only.empty());
    plan.deadline = time.End();
    plan.results.FromJson(Load(options.results)["rows"]);
    try {
        for (const Bench::RowEntry& row : Bench::AllRows()) {
            if (!Wanted(options, row.name)) continue;
            if (!time.HasTimeFor(row)) {
                std::printf("%s: left out, it would not end within ten minutes\n", row.name);
                continue;
            }
            MeasureRow(row, plan);
            Json::StreamWriterBuilder writer;
            writer["precision"] = 6;
            Bench::WriteText(
                options.results,
                Json::writeString(writer, Bench::ToDocument(plan.results, machine, options.form)));
        }
    } catch (const Bench::Interrupted&) {
        return kStopped;
    }
    return 0;
}

/// Writes results.md and the data columns for bench/plot.gp.
int Report(const Options& options) {
    Bench::Results results;
    const Json::Value document = Load(options.results);
    results.FromJson(document["rows"]);
    bool written = Bench::WriteText(options.output + "/results.md", Bench::ToMarkdown(document));
    const std::vector<std::string> products = {
        "Sentrel",          "raw walk and watch", "bare rsync",      "inotifywait",
        "inotifywait loop", "lsyncd, batching",   "watchman trigger"};
    for (const char* what : {"ready", "memory", "latency"}) {
        written = Bench::WriteText(options.output + "/" + what + ".dat",
                                   Bench::PlotColumns(results, what, products)) &&
                  written;
    }
    return written ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    std::string first;
    std::string second;
    int threads = 1;
    CLI::App app{"Measures Sentrel and its peers; see bench/run.sh"};
    app.require_subcommand(1);
    auto* run = app.add_subcommand("run", "measure");
    run->add_option("--work", options.machine.work)->required();
    run->add_option("--stage", options.machine.stage)->required();
    run->add_option("--peers", options.machine.peers)->required();
    run->add_option("--home", options.machine.home)->required();
    run->add_option("--results", options.results)->required();
    run->add_option("--only", options.only);
    run->add_flag("--short", options.form.brief);
    run->add_flag("--busy", options.form.busy, "other processes keep the processors busy");
    auto* report = app.add_subcommand("report", "make tables of the figures");
    report->add_option("--results", options.results)->required();
    report->add_option("--output", options.output)->required();
    auto* rows = app.add_subcommand("rows", "name the rows");
    auto* forker = app.add_subcommand("forker", "for the driver itself");
    forker->add_option("requests", first);
    forker->add_option("answers", second);
    auto* raw = app.add_subcommand("raw", "for the driver itself");
    raw->add_option("root", first);
    raw->add_option("threads", threads);
    CLI11_PARSE(app, argc, argv);
    options.machine.self = std::filesystem::canonical("/proc/self/exe").string();
    if (*forker) return Bench::RunForker(first, second);
    if (*raw) return Bench::RunRawWatch(first, threads);
    if (*report) return Report(options);
    if (*rows) {
        for (const Bench::RowEntry& row : Bench::AllRows())
            std::printf("%-10s%s\n", row.name, row.what);
        return 0;
    }
    return Measure(options);
}
