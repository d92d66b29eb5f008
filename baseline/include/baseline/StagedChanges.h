#pragma once

#include <sdk/files/PathAnchor.h>

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include "baseline/TreeVerifier.h"
#include "baseline/TreeWalk.h"

namespace Baseline {

/// Reads what a command has changed in an overlay: the overlay's upper directory, compared with the
/// tree below it. Objects in the upper directory that equal the tree are no change. Follows no link
/// and opens no device. Bounded: a larger set of changes is a problem. For one use.
class StagedChanges {
  public:
    static constexpr std::size_t kMostChanges = 500'000;
    static constexpr std::size_t kMostBytes = 64 * 1024 * 1024;  ///< of all paths together

    struct Request {
        const SDK::PathAnchor* staged = nullptr;  ///< the upper directory; borrowed
        const SDK::PathAnchor* base = nullptr;    ///< the tree below it; borrowed
        /// True for a path, relative to the tree, that is not protected.
        std::function<bool(const std::string& path, bool is_directory)> ignored;
        std::function<bool()> is_over;  ///< asked often; true ends the work
    };
    struct Result {
        /// In the order of the paths. What lies below an added or missing directory is not listed
        /// by itself.
        std::vector<Difference> changes;
        std::vector<std::string> ignored;  ///< staged objects that are not protected
        std::string problem;               ///< a sentence; empty when all was read
    };

    explicit StagedChanges(Request request) : request_(std::move(request)) {}

    Result Read();

    /// Removes the overlay's own attributes ("user.overlay.") from a staged object, an open file or
    /// directory.
    static void RemoveMarks(int object);

    /// The object stands for a deleted one.
    static bool IsWhiteout(const struct stat& info);

  private:
    void Compare(const WalkedObject& staged, TreeWalk& walk);
    void CompareWith(const WalkedObject& staged, const struct stat& base);
    void CompareContent(const WalkedObject& staged, const struct stat& base);
    void AddHidden(const WalkedObject& directory);
    std::string AttributesOf(const WalkedObject& staged, const struct stat& base) const;
    void Add(Difference::Kind kind, const WalkedObject& staged, const std::string& detail = "");
    void Add(Difference difference);

    Request request_;
    Result result_;
    std::size_t bytes_ = 0;
    std::string added_ = {};  ///< the directory that was added last, with a "/" behind it
};

}  // namespace Baseline
