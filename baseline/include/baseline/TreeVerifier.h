#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "baseline/ContentHasher.h"
#include "baseline/Manifest.h"
#include "baseline/TreeWalk.h"

namespace Baseline {

/// One object that is not as its manifest says.
struct Difference {
    enum class Kind {
        kChanged,     ///< content, a link's target, or the type
        kAttributes,  ///< owner or permissions alone
        kAdded,       ///< nothing is approved at that path
        kMissing,
    };
    Kind kind = Kind::kChanged;
    std::string path;  ///< relative to the protected path
    bool is_directory = false;
    std::string detail = {};  ///< of attributes: which, from what to what

    bool operator<(const Difference& other) const { return ComparePaths(path, other.path) < 0; }
};

/// Compares a tree with its manifest: the protected path itself, or its backup copies. Changes
/// nothing. An object below an added or missing directory is not listed by itself. For one use.
class TreeVerifier {
  public:
    enum class Side { kLive, kCopies };
    struct Request {
        TreeRoot root;
        const Manifest* manifest = nullptr;  ///< borrowed
        Side side = Side::kLive;
        bool full =
            false;  ///< reads every content; else that of objects changed since the manifest
        std::string below = {};  ///< only this part
        std::function<bool(const std::string& path, bool is_directory)> ignored;
        std::function<bool()> is_over;  ///< asked often, on several threads
        unsigned int threads = 1;
        /// Takes each difference, one at a time, in no order, on any of the threads.
        std::function<void(const Difference&)> found;
    };
    struct Summary {
        std::size_t objects = 0;
        std::uint64_t bytes = 0;  ///< read
        bool is_complete = false;
    };

    explicit TreeVerifier(Request request);

    /// Blocks until all is compared.
    Summary Run();

    /// How far Run has come; any thread.
    std::size_t ObjectsSoFar() const { return objects_; }
    std::uint64_t BytesSoFar() const { return hasher_.Bytes(); }

  private:
    void CompareWith(const ManifestEntry& entry, TreeWalk& walk);
    void CompareContent(const ManifestEntry& entry, std::size_t index, const WalkedObject& object);
    void TakeResult(const ContentHasher::Result& result);
    void AddMissingUpTo(const std::string* path);
    void SkipBelow(std::string_view path);
    void Report(const Difference& difference);
    Identity KnownIdentity(const ManifestEntry& entry) const {
        return request_.side == Side::kLive ? entry.live : entry.copy;
    }

    Request request_;
    std::mutex found_mutex_;
    std::atomic<std::size_t> objects_{0};
    std::size_t next_ = 0;  ///< the first entry that was not met yet
    ContentHasher hasher_;
};

/// "mode 0644 -> 0666, owner 0:0 -> 33:33", only what differs; empty when nothing does.
std::string AttributeDifference(const ManifestEntry& approved, const struct stat& present);

}  // namespace Baseline
