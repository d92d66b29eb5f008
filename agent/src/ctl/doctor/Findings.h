#pragma once

#include <json/value.h>

#include <string>
#include <vector>

namespace Ctl {

/// What one check of the doctor found.
struct Finding {
    enum class Level { kOk, kWarning, kProblem };
    Level level = Level::kOk;
    std::string code;    ///< empty: all is well
    std::string check;   ///< what was checked, in a word or two
    std::string text;    ///< what was found; safe to print
    std::string advice;  ///< what to do; empty when all is well
    std::string
        section;  ///< of docs/troubleshooting.md, as "explain" takes it; empty when all is well
};

/// Collects findings in the order of the checks. Not thread-safe.
class Findings {
  public:
    /// All is well.
    void Ok(const std::string& check, const std::string& text);

    /// A finding of the table of known faults, which has its level, check, advice and section. An
    /// unknown code is a warning.
    void Add(const std::string& code, const std::string& text);

    bool Has(const std::string& check) const;
    const std::vector<Finding>& All() const { return all_; }
    /// The worst of all.
    Finding::Level Worst() const;

  private:
    std::vector<Finding> all_;
};

/// A line for each finding, and one with their numbers.
std::string FormatFindings(const Findings& findings);

/// {"state","checks":[{"check","state","code","text","advice","section"}]}; the states are "ok",
/// "warning" and "problem".
Json::Value FindingsObject(const Findings& findings);

}  // namespace Ctl
