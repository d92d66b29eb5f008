#pragma once

#include <json/value.h>

#include <string>
#include <vector>

#include "attack/AttackRun.h"

namespace Demo {

/// Formats results as lines of one table: action, path, reported as, restored, milliseconds. Not
/// thread-safe.
class ResultTable {
  public:
    /// `attacks` determine the widths; paths are shown relative to `base` or to its parent folder.
    ResultTable(const std::vector<Attack>& attacks, std::string base);

    std::string Header() const;
    std::string Line(const AttackResult& result) const;
    Json::Value ToJson(const AttackResult& result) const;

  private:
    std::string Relative(const std::string& path) const;
    std::string Row(const std::string& action, const std::string& path, const std::string& reported,
                    const std::string& restored, const std::string& milliseconds) const;

    std::string base_;
    std::size_t action_width_;
    std::size_t path_width_;
};

}  // namespace Demo
