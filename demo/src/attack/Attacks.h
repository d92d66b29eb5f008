#pragma once

#include <functional>
#include <string>
#include <vector>

#include "site/OddNames.h"
#include "site/SiteSurvey.h"

namespace Demo {

/// One action of an intruder.
struct Attack {
    std::string name;
    std::string path;  ///< the changed object; it and everything below must be restored
    /// Runs the attack; returns the reason of a failure. It is no failure when the agent undoes a
    /// part meanwhile.
    std::function<std::string()> run;
};

/// The number of files and subtrees that `PlanAttacks` needs.
constexpr std::size_t kFilesNeeded = 7;
constexpr std::size_t kDirectoriesNeeded = 2;

/// The attacks in order, each on its own objects. `scratch` is a folder outside the site on the
/// same file system for the intruder's files; `single_file` is a protected file outside the site,
/// or empty.
std::vector<Attack> PlanAttacks(const AttackTargets& targets, const std::string& scratch,
                                const std::string& single_file);

/// Attacks on the objects of `names`, which must exist.
std::vector<Attack> PlanOddAttacks(const OddNames& names, const std::string& scratch);

}  // namespace Demo
