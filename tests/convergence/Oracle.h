#pragma once

#include <TreeState.h>
#include <sys/types.h>

#include <map>
#include <set>
#include <string>
#include <vector>

#include "TestSite.h"

namespace test {

/// Where a tree differs from its backup copy, by path relative to the site ("" is the site, others
/// begin with "/"), in words.
using Differences = std::map<std::string, std::string>;

/// Judges a site by its backup copy as it was before the storm. One thread.
class Oracle {
  public:
    explicit Oracle(const TestSite& site);

    /// Those that count. What the policy excludes and what the module ignores by design, names that
    /// end in ".", is left out.
    Differences Find(const Demo::TreeState& now) const;
    Differences FindInSite() const { return Find(Demo::TakeState(site_.Site())); }

    /// How the backup copy or the bystander has changed since; empty: not at all.
    std::string ChangeBeside() const;

    /// Those of `differing` of which neither themselves nor a directory above them has an alarm; of
    /// a file with several names the alarm of one tells: time and mode go back for all at once.
    std::vector<std::string> WithoutAlarm(const Differences& differing,
                                          const std::set<std::string>& alarms) const;

    /// Objects of the copy, and those of them that are left out, the excluded ones apart.
    std::size_t Objects() const { return copy_.size(); }
    std::size_t LeftOut() const { return left_out_; }

  private:
    bool IsLeftOut(const std::string& path) const;

    const TestSite& site_;
    Demo::TreeState copy_;
    Demo::TreeState bystander_;
    std::size_t left_out_ = 0;
    std::map<std::string, ino_t> object_of_;  ///< of names that share one with others
    std::map<ino_t, std::vector<std::string>> names_of_;
};

}  // namespace test
