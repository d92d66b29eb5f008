// Makes documents of results. The Markdown is made of the JSON document, so that both are equal.
#include "report/Document.h"

#include <cmath>
#include <sstream>

#include "base/Stats.h"
#include "report/Limits.h"

namespace Bench {
namespace {

void WriteLimits(const Json::Value& limits, std::ostream& out) {
    out << "| What | Ours | Limit | Ours / limit | |\n|---|---:|---:|---:|---|\n";
    for (const Json::Value& limit : limits) {
        const double share = limit["share"].isNull() ? -1 : limit["share"].asDouble();
        out << "| " << limit["what"].asString() << " | " << limit["ours"].asString() << " | "
            << limit["limit"].asString() << " | " << (share < 0 ? "–" : Figure(share, "")) << " | "
            << (limit["met"].asBool() ? "met" : "**not met**") << " |\n";
    }
}

void WriteLine(const Json::Value& line, const std::string& base, double base_median,
               std::ostream& out) {
    const bool measured = !line["samples"].empty();
    const auto figure = [&](const char* name) {
        return measured ? Figure(line[name].asDouble(), "") : std::string("–");
    };
    out << "| " << line["guard"].asString() << " | " << figure("median") << " | " << figure("p99")
        << " | " << line["samples"].size() << " | ";
    if (!base.empty()) {
        const bool known = measured && base_median > 0;
        out << (known ? Figure(line["median"].asDouble() / base_median, "") : "–") << " | ";
    }
    std::string notes;
    for (const Json::Value& note : line["notes"]) {
        notes += (notes.empty() ? "" : "; ") + note.asString();
    }
    out << notes << " |\n";
}

void WriteRow(const RowTitle& title, const Json::Value& lines, std::ostream& out) {
    const std::string base = title.base;
    const std::string unit = title.unit;
    double base_median = 0;
    for (const Json::Value& line : lines) {
        if (line["guard"] == base) base_median = line["median"].asDouble();
    }
    out << "\n**" << title.title << "**" << (unit.empty() ? "" : ", " + unit) << "\n\n| | Median"
        << " | 99th percentile | Runs | " << (base.empty() ? "" : "× " + base + " | ")
        << "|\n|---|---:|---:|---:|" << (base.empty() ? "" : "---:|") << "---|\n";
    for (const Json::Value& line : lines) WriteLine(line, base, base_median, out);
}

}  // namespace

Json::Value ToDocument(const Results& results, const Json::Value& machine, const Form& form) {
    Json::Value document;
    document["machine"] = machine;
    document["form"] = form.brief ? "short" : "full";
    document["busy"] = form.busy;
    document["rows"] = results.ToJson();
    document["limits"] = Json::Value(Json::arrayValue);
    for (const Verdict& verdict : Evaluate(results, form.busy)) {
        Json::Value one;
        one["what"] = verdict.what;
        one["ours"] = verdict.ours;
        one["limit"] = verdict.limit;
        one["share"] = std::isfinite(verdict.share) ? Json::Value(verdict.share) : Json::Value();
        one["met"] = verdict.met;
        document["limits"].append(one);
    }
    return document;
}

std::string ToMarkdown(const Json::Value& document) {
    std::ostringstream out;
    const Json::Value& machine = document["machine"];
    out << "Measured by `bench/run.sh" << (document["form"] == "short" ? " --short" : "")
        << (document["busy"].asBool() ? " --busy" : "") << "`. The machine:\n\n";
    for (const std::string& name : machine.getMemberNames()) {
        out << "- " << name << ": " << machine[name].asString() << "\n";
    }
    out << "\n## Held against the limits\n\n";
    WriteLimits(document["limits"], out);
    out << "\n## Every figure\n";
    for (const RowTitle& title : RowTitles()) {
        const Json::Value& lines = document["rows"][title.row];
        if (!lines.empty()) WriteRow(title, lines, out);
    }
    return out.str();
}

std::string PlotColumns(const Results& results, const std::string& what,
                        const std::vector<std::string>& products) {
    std::ostringstream out;
    for (const char* size : {"1000", "10000", "100000"}) {
        out << size;
        for (const std::string& product : products) {
            const Line& line = results.Find(what + "_" + size, product);
            out << (line.samples.empty() ? " ?" : " " + std::to_string(Median(line.samples)));
        }
        out << "\n";
    }
    return out.str();
}

}  // namespace Bench
