#pragma once

#include <json/value.h>

#include <map>
#include <set>
#include <string>
#include <vector>

namespace Bench {

/// The samples and notes of one product in one row.
struct Line {
    std::string product;
    std::vector<double> samples;
    std::vector<std::string> notes;
};

/// All results of a run by row, products in the order of their first result. The JSON key of a
/// product is "guard". Not thread-safe.
class Results {
  public:
    /// The first result of a row removes the row's results of FromJson.
    void Add(const std::string& row, const std::string& product, double sample);
    void Note(const std::string& row, const std::string& product, const std::string& note);

    /// An empty line when nothing was measured.
    const Line& Find(const std::string& row, const std::string& product) const;
    const std::vector<Line>& Row(const std::string& row) const;

    Json::Value ToJson() const;
    void FromJson(const Json::Value& json);

  private:
    Line& Of(const std::string& row, const std::string& product);

    std::map<std::string, std::vector<Line>> rows_;
    std::set<std::string> measured_;  ///< in this run, not in the file
};

}  // namespace Bench
