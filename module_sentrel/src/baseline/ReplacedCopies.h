#pragma once

#include <sdk/files/FileDescriptor.h>
#include <sdk/files/PathAnchor.h>

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "places/RuleAnchors.h"

namespace Engine {

/// Keeps the backup copies of one rule that others replace: moves them to
/// <backup path>/.morvane-generations/<name of the rule>/<generation>.<run>/<path>, where only root
/// gets. The generation is the one that the copies belong to. Each run that replaces copies has a
/// directory of its own, so that a later run does not replace what an earlier one has kept. Works
/// by held descriptors and follows no link. For one run; not thread-safe.
class ReplacedCopies {
  public:
    /// A generation has at most this many directories. What more runs replace is not kept: it can
    /// only be copies that belong to no approved state.
    static constexpr unsigned int kMostRuns = 64;

    /// `generation`: the newest approved one; 0: none, and nothing is kept. `rule` is borrowed.
    ReplacedCopies(const AnchoredRule& rule, unsigned int generation);

    /// The empty directory of this run, for paths relative to the protected path (of a single file:
    /// its name). Not open with errno 0: nothing is kept.
    SDK::FileDescriptor OpenRun();

    // `name` is the copy of the object `below`, a path relative to the protected path, in its open
    // directory. Both return 0 or an errno. A copy on another mount is not kept.

    /// Keeps the copy because another object takes its place by rename(2): a directory leaves it,
    /// anything else may still stand there. A missing copy is no failure.
    int Keep(int directory, const std::string& name, const std::string& below);

    /// Keeps the copy, which leaves its place. A missing copy is no failure.
    int Remove(int directory, const std::string& name, const std::string& below);

    /// The directories of generation `from` and newer ones, oldest first.
    std::vector<std::unique_ptr<SDK::PathAnchor>> Runs(unsigned int from) const;

    /// Removes directories of generations that are not among `kept`, for at most `limit_ms`. False
    /// when some are left.
    bool Trim(const std::vector<unsigned int>& kept, std::int64_t limit_ms) const;

  private:
    using Run = std::pair<unsigned int, unsigned int>;  ///< generation, number

    enum class Stays { kYes, kNo };
    int Move(int directory, const std::string& name, const std::string& below, Stays stays);
    bool HasRun();
    int PlaceOf(const std::string& below, SDK::PathAnchor::Entry& place);
    SDK::FileDescriptor OpenAll() const;
    SDK::FileDescriptor MakeAll() const;
    static std::vector<Run> RunsIn(int directory);

    const AnchoredRule& rule_;
    const unsigned int generation_;
    SDK::FileDescriptor all_;  ///< the directory that holds the runs
    SDK::FileDescriptor run_;
    std::string run_name_;
};

}  // namespace Engine
