#pragma once

#include <functional>
#include <string>
#include <vector>

#include "OddNames.h"
#include "SiteSurvey.h"

namespace Demo {

/// One thing that an intruder does.
struct Attack {
    std::string name;
    std::string path;  ///< what it changes; it and all below it must be as before afterwards
    /// Does it; the reason when it could not be done. Part of it may already be undone under its
    /// hands: that is no failure.
    std::function<std::string()> act;
};

/// How many files and subtrees of a site `PlanAttacks` needs.
constexpr std::size_t kFilesNeeded = 7;
constexpr std::size_t kDirectoriesNeeded = 2;

/// The attacks, in order, each on objects of its own. `scratch` is a folder on the site's file
/// system, outside of it, where the intruder prepares files; `single_file` is a protected file
/// apart from the site, or empty.
std::vector<Attack> PlanAttacks(const Victims& victims, const std::string& scratch,
                                const std::string& single_file);

/// Attacks on the objects of `names`, which are there.
std::vector<Attack> PlanOddAttacks(const OddNames& names, const std::string& scratch);

}  // namespace Demo
