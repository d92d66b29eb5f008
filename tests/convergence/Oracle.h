#pragma once

#include <site/TreeState.h>
#include <sys/types.h>

#include <map>
#include <set>
#include <string>
#include <vector>

#include "TestSite.h"

namespace test {

/// Descriptions of the objects that differ from their backup copy. The key is the path relative to
/// the site: "" is the site itself, all others begin with "/".
using Differences = std::map<std::string, std::string>;

/// Compares a site with its backup copy as it was before the storm. Not thread-safe.
class Oracle {
  public:
    explicit Oracle(const TestSite& site);

    /// Omits what the policy excludes and what the module ignores by design: names that end in "."
    /// and everything below them.
    Differences FindDifferences() const;

    /// The first change of the backup copy or of the link target directory; empty: no change.
    std::string ChangeOutsideSite() const;

    /// The paths of `differing` that have no alarm. An alarm for a directory above counts, and so
    /// does an alarm for another hard link: a restore resets time and mode for all links at once.
    std::vector<std::string> WithoutAlarm(const Differences& differing,
                                          const std::set<std::string>& alarms) const;

    std::size_t ObjectCount() const { return copy_.size(); }
    /// The objects of the copy that FindDifferences omits.
    std::size_t ExcludedCount() const { return excluded_count_; }

  private:
    static bool IsExcluded(const std::string& path);

    const TestSite& site_;
    Demo::TreeState copy_;
    Demo::TreeState link_target_;
    std::size_t excluded_count_ = 0;
    std::map<std::string, ino_t> inode_of_;  ///< of paths with more than one hard link
    std::map<ino_t, std::vector<std::string>> names_of_;
};

}  // namespace test
