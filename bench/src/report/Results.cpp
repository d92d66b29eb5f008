#include "report/Results.h"

#include <algorithm>

#include "base/Stats.h"

namespace Bench {

Line& Results::Of(const std::string& row, const std::string& product) {
    if (measured_.insert(row).second) rows_.erase(row);
    std::vector<Line>& lines = rows_[row];
    const auto found = std::find_if(lines.begin(), lines.end(),
                                    [&](const Line& line) { return line.product == product; });
    if (found != lines.end()) return *found;
    lines.push_back({product, {}, {}});
    return lines.back();
}

void Results::Add(const std::string& row, const std::string& product, double sample) {
    Of(row, product).samples.push_back(sample);
}

void Results::Note(const std::string& row, const std::string& product, const std::string& note) {
    std::vector<std::string>& notes = Of(row, product).notes;
    if (std::find(notes.begin(), notes.end(), note) == notes.end()) notes.push_back(note);
}

const std::vector<Line>& Results::Row(const std::string& row) const {
    static const std::vector<Line> kNone;
    const auto found = rows_.find(row);
    return found == rows_.end() ? kNone : found->second;
}

const Line& Results::Find(const std::string& row, const std::string& product) const {
    static const Line kNone;
    for (const Line& line : Row(row)) {
        if (line.product == product) return line;
    }
    return kNone;
}

Json::Value Results::ToJson() const {
    Json::Value json(Json::objectValue);
    for (const auto& [row, lines] : rows_) {
        for (const Line& line : lines) {
            Json::Value one;
            one["guard"] = line.product;
            one["median"] = Median(line.samples);
            one["p99"] = Percentile(line.samples, 0.99);
            one["samples"] = Json::Value(Json::arrayValue);
            for (const double sample : line.samples) one["samples"].append(sample);
            one["notes"] = Json::Value(Json::arrayValue);
            for (const std::string& note : line.notes) one["notes"].append(note);
            json[row].append(one);
        }
    }
    return json;
}

void Results::FromJson(const Json::Value& json) {
    for (const std::string& row : json.getMemberNames()) {
        for (const Json::Value& one : json[row]) {
            Line line;
            line.product = one["guard"].asString();
            for (const Json::Value& sample : one["samples"]) {
                line.samples.push_back(sample.asDouble());
            }
            for (const Json::Value& note : one["notes"]) line.notes.push_back(note.asString());
            rows_[row].push_back(std::move(line));
        }
    }
}

}  // namespace Bench
