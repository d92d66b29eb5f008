#pragma once

#include <json/value.h>

#include <map>
#include <set>
#include <string>
#include <vector>

namespace Bench {

/// What was measured of one guard in one row.
struct Line {
    std::string guard;
    std::vector<double> samples;
    std::vector<std::string> notes;
};

/// All figures of a run, by row, guards in the order in which they came. One thread.
class Results {
  public:
    /// The first of a row drops what FromJson brought for it.
    void Add(const std::string& row, const std::string& guard, double sample);
    void Note(const std::string& row, const std::string& guard, const std::string& note);

    /// The line; an empty one when nothing was measured.
    const Line& Find(const std::string& row, const std::string& guard) const;
    const std::vector<Line>& Row(const std::string& row) const;

    Json::Value ToJson() const;
    void FromJson(const Json::Value& json);

  private:
    Line& Of(const std::string& row, const std::string& guard);

    std::map<std::string, std::vector<Line>> rows_;
    std::set<std::string> measured_;  ///< rows of this run, not of the file
};

}  // namespace Bench
