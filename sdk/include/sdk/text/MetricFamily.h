#pragma once

#include <json/value.h>

#include <set>
#include <string>
#include <utility>
#include <vector>

namespace SDK {

using MetricLabels = std::vector<std::pair<const char*, std::string>>;

/// One metric with its samples in the text format of Prometheus, appended to a text. Writes nothing
/// while it has no sample. Not thread-safe.
class MetricFamily {
  public:
    /// Borrows `out`. `type`: "gauge", "counter" or "histogram".
    MetricFamily(std::string& out, const char* name, const char* type, const char* help)
        : out_(out), name_(name), type_(type), help_(help) {}

    /// Numbers and booleans; anything else is left out, as is a sample with labels that are there.
    void Add(const Json::Value& value, const MetricLabels& labels = {}, const char* suffix = "");

  private:
    std::string& out_;
    const std::string name_;
    const std::string type_;
    const std::string help_;
    std::set<std::string> known_;
};

}  // namespace SDK
