#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "index/HashSlots.h"
#include "index/NameSet.h"

namespace Engine::FileNotify {

struct DirNode;

/// The child directories of a DirNode. Owns their nodes. Not thread-safe.
class ChildDirs {
  public:
    ChildDirs();
    ~ChildDirs();
    ChildDirs(const ChildDirs&) = delete;
    ChildDirs& operator=(const ChildDirs&) = delete;

    /// Returns the child of that name; null when there is none.
    DirNode* Find(std::string_view name) const;
    /// Takes ownership of `node`, whose name must be new here.
    DirNode& Add(std::unique_ptr<DirNode> node);
    /// Removes `node`, which must be a child, and returns it.
    std::unique_ptr<DirNode> Take(const DirNode& node);
    void Reserve(std::size_t count) { nodes_.reserve(count); }
    const std::vector<std::unique_ptr<DirNode>>& All() const { return nodes_; }

  private:
    static constexpr std::size_t kHashedFrom = 16;
    std::uint32_t IndexOf(std::string_view name) const;

    std::vector<std::unique_ptr<DirNode>> nodes_;
    std::unique_ptr<HashSlots> slots_;
};

/// Counts of a directory's subtree, including the directory itself.
struct SubtreeTotals {
    std::uint32_t directories = 0;
    std::uint32_t files = 0;
    std::uint32_t unwatched = 0;
};

/// One known directory. A plain record without operations: NameIndex maintains names and totals,
/// WatchTable the watch, WalkQueue the job, WatchMatcher kHasAttached. Not thread-safe.
struct DirNode {
    enum Flag : std::uint8_t {
        kListed = 1,        ///< its names are known
        kInitial = 2,       ///< found by a first walk and not listed yet: its content is not new
        kHasAttached = 4,   ///< a watch is attached here (Watch::attach)
        kUnwatched = 8,     ///< it needs a kernel watch and could not get one
        kThroughLink = 16,  ///< a followed link on the path to a root
        kPartial = 32,      ///< lacks names that no watch covered when it was listed
        kSlowPath = 64      ///< TreeWalker must visit it; InitialScan must not
    };

    bool Is(Flag flag) const { return (flags & flag) != 0; }
    void Set(Flag flag, bool on) {
        flags = static_cast<std::uint8_t>(on ? flags | flag : flags & ~flag);
    }

    DirNode* parent = nullptr;
    std::string name;
    NameSet files;  ///< everything except directories
    ChildDirs dirs;
    SubtreeTotals totals;
    int wd = -1;
    std::uint64_t inode = 0;      ///< identifies the directory; 0: unknown
    std::uint32_t mask = 0;       ///< of the kernel watch
    std::uint32_t job_index = 0;  ///< position in the walk queue's lane while `job` is set
    std::uint8_t job = 0;         ///< WalkQueue's reasons; 0: not queued
    std::uint8_t flags = 0;
};

}  // namespace Engine::FileNotify
